#pragma once

// Splits one line of Snort's standard error: which kind of error it reports, on which line of the
// rule file, and why. docs/formats/snort_errors.md shows lines of every kind.
//
// Threads: a pure function.

// The kinds of error, as ParseSnortError delivers them.
inline constexpr int kSnortErrorOther = 0;
inline constexpr int kSnortErrorInConfiguration = 1;
inline constexpr int kSnortErrorInRules = 2;

// Stores the kind, the line number in the rule file (0 unless the error is in the rules), and the
// reason: at most `*reasonSize` - 1 characters and a NUL; `*reasonSize` is at least 1. The reason
// of an error outside of the rules is the complete line. Always returns 0. Throws std::out_of_range
// when another ")" directly follows the one after the line number.
int ParseSnortError(const char* line, int* kind, long* lineNumber, char* reason, int* reasonSize);
