#pragma once

// Finds the rule on a line of a rule file, because Snort names only the line when it reports an
// error. Deliberate: the search is for plain text, so a "sid:" inside a rule's message is taken
// for the option. The file is read again each time.
//
// Threads: no state; any thread.

// Results of LookupRuleByLine.
inline constexpr int kRuleFound = 0;  // also when the file is there and cannot be opened
inline constexpr int kRuleHasNoSid = 1;
inline constexpr int kRuleHasNoMessage = 2;  // `sid` has been filled
inline constexpr int kRuleFileMissing = 5;
inline constexpr int kRuleFileNotNamed = 6;

// Looks at line `*lineNumber`, counted from 1, of the file, and stores its SID and its message: at
// most size - 1 characters of each, and a NUL. A buffer is cleared first, but only when there is
// something to store. A null or empty `path` gives kRuleFileNotNamed.
// Throws std::out_of_range for a SID or message that holds nothing but blanks, or quotes.
[[nodiscard]] int LookupRuleByLine(const char* path, const long* lineNumber, char* sid,
                                   int* sidSize, char* msg, int* msgSize);
