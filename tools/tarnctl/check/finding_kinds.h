#pragma once

// Every kind of finding. docs/man/tarnctl-check.1 lists them, and a test compares.
//
// Threads: constants.

#include "tarnctl/check/finding.h"

namespace tarnctl::kinds {

inline constexpr FindingLevel kBad = FindingLevel::kError;
inline constexpr FindingLevel kOdd = FindingLevel::kWarning;

// Lines, keys and numbers.
inline constexpr FindingKind kMissingEquals = {"missing-equals", kBad};
inline constexpr FindingKind kMissingName = {"missing-name", kBad};
inline constexpr FindingKind kUnknownKey = {"unknown-key", kBad};
inline constexpr FindingKind kWrongFile = {"wrong-file", kBad};
inline constexpr FindingKind kNotANumber = {"not-a-number", kBad};
inline constexpr FindingKind kNumberTrailingText = {"number-trailing-text", kBad};
inline constexpr FindingKind kNumberOutOfRange = {"number-out-of-range", kBad};
inline constexpr FindingKind kDuplicateKey = {"duplicate-key", kOdd};
inline constexpr FindingKind kCarriageReturn = {"carriage-return", kBad};
inline constexpr FindingKind kStateOverruled = {"state-overruled", kOdd};
inline constexpr FindingKind kSameCpu = {"same-cpu", kOdd};
inline constexpr FindingKind kNoSuchCpu = {"no-such-cpu", kOdd};
inline constexpr FindingKind kEmptyValue = {"empty-value", kBad};

// Entries.
inline constexpr FindingKind kIdRefused = {"id-refused", kBad};
inline constexpr FindingKind kIdBent = {"id-bent", kBad};
inline constexpr FindingKind kUnknownMarker = {"unknown-marker", kBad};
inline constexpr FindingKind kKeyWithMoreText = {"key-with-more-text", kBad};
inline constexpr FindingKind kSeverityUnknown = {"severity-unknown", kBad};
inline constexpr FindingKind kSeverityWithMoreText = {"severity-with-more-text", kOdd};
inline constexpr FindingKind kUserResponseWord = {"user-response-word", kBad};
inline constexpr FindingKind kEvidenceScope = {"evidence-scope", kBad};
inline constexpr FindingKind kResponseStopped = {"response-stopped", kBad};
inline constexpr FindingKind kQuarantineStopped = {"quarantine-stopped", kBad};
inline constexpr FindingKind kWordsErased = {"words-erased", kOdd};
inline constexpr FindingKind kTrailingComma = {"trailing-comma", kOdd};
inline constexpr FindingKind kRuleNeverApplies = {"rule-never-applies", kBad};
inline constexpr FindingKind kDurationMissing = {"duration-missing", kOdd};
inline constexpr FindingKind kDurationZero = {"duration-zero", kOdd};
inline constexpr FindingKind kSecondBlock = {"second-block", kBad};
inline constexpr FindingKind kEntryWithoutName = {"entry-without-name", kOdd};
inline constexpr FindingKind kEntryWithoutSeverity = {"entry-without-severity", kOdd};
inline constexpr FindingKind kEntryWithoutResponse = {"entry-without-response", kBad};
inline constexpr FindingKind kRulesSwitchedOff = {"rules-switched-off", kOdd};
inline constexpr FindingKind kResponseWithoutRules = {"response-without-rules", kOdd};
inline constexpr FindingKind kTextTooLong = {"text-too-long", kBad};

// Files and places.
inline constexpr FindingKind kFileMissing = {"file-missing", kBad};
inline constexpr FindingKind kFileUnreadable = {"file-unreadable", kBad};
inline constexpr FindingKind kFileNotWritable = {"file-not-writable", kBad};
inline constexpr FindingKind kFileNotRegular = {"file-not-regular", kBad};
inline constexpr FindingKind kFolderMissing = {"folder-missing", kBad};
inline constexpr FindingKind kFolderNotWritable = {"folder-not-writable", kBad};
inline constexpr FindingKind kFifoIsNone = {"fifo-is-none", kBad};
inline constexpr FindingKind kFifoMode = {"fifo-mode", kBad};
inline constexpr FindingKind kFifoProtected = {"fifo-protected", kBad};
inline constexpr FindingKind kRingIsNone = {"ring-is-none", kBad};
inline constexpr FindingKind kRingMode = {"ring-mode", kBad};
inline constexpr FindingKind kRingProtected = {"ring-protected", kBad};
inline constexpr FindingKind kRingRoom = {"ring-room", kBad};
inline constexpr FindingKind kSemaphoreIsNone = {"semaphore-is-none", kBad};
inline constexpr FindingKind kSemaphoreMode = {"semaphore-mode", kBad};
inline constexpr FindingKind kSocketIsNone = {"socket-is-none", kBad};
inline constexpr FindingKind kSocketMode = {"socket-mode", kBad};

// Rules and protected addresses.
inline constexpr FindingKind kRuleWithoutEntry = {"rule-without-entry", kBad};
inline constexpr FindingKind kIdUnderTwoGenerators = {"id-under-two-generators", kOdd};
inline constexpr FindingKind kEntryWithoutRule = {"entry-without-rule", kOdd};
inline constexpr FindingKind kRecordKind = {"record-kind", kBad};
inline constexpr FindingKind kRecordWriter = {"record-writer", kBad};
inline constexpr FindingKind kCanBlockProtected = {"can-block-protected", kBad};

inline constexpr const FindingKind* kAll[] = {
    &kMissingEquals,
    &kMissingName,
    &kUnknownKey,
    &kWrongFile,
    &kNotANumber,
    &kNumberTrailingText,
    &kNumberOutOfRange,
    &kDuplicateKey,
    &kCarriageReturn,
    &kStateOverruled,
    &kSameCpu,
    &kNoSuchCpu,
    &kEmptyValue,
    &kIdRefused,
    &kIdBent,
    &kUnknownMarker,
    &kKeyWithMoreText,
    &kSeverityUnknown,
    &kSeverityWithMoreText,
    &kUserResponseWord,
    &kEvidenceScope,
    &kResponseStopped,
    &kQuarantineStopped,
    &kWordsErased,
    &kTrailingComma,
    &kRuleNeverApplies,
    &kDurationMissing,
    &kDurationZero,
    &kSecondBlock,
    &kEntryWithoutName,
    &kEntryWithoutSeverity,
    &kEntryWithoutResponse,
    &kRulesSwitchedOff,
    &kResponseWithoutRules,
    &kTextTooLong,
    &kFileMissing,
    &kFileUnreadable,
    &kFileNotWritable,
    &kFileNotRegular,
    &kFolderMissing,
    &kFolderNotWritable,
    &kFifoIsNone,
    &kFifoMode,
    &kFifoProtected,
    &kRingIsNone,
    &kRingMode,
    &kRingProtected,
    &kRingRoom,
    &kSemaphoreIsNone,
    &kSemaphoreMode,
    &kSocketIsNone,
    &kSocketMode,
    &kRuleWithoutEntry,
    &kIdUnderTwoGenerators,
    &kEntryWithoutRule,
    &kRecordKind,
    &kRecordWriter,
    &kCanBlockProtected,
};

}  // namespace tarnctl::kinds
