#pragma once

// A log call that carries its source position, for the places that name themselves in the log.
//
// Threads: any thread.

#include <string>

// Logs at `level` with the words "[ERROR]", "[WARNING]" or "[INFO]" in front for levels 1 to 3,
// and "<function:line>" for levels 5 and 6. Texts of 2048 bytes and more are cut.
void LogAt(int level, int line, const char* function, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Writes the prefix and the formatted text to `out`, all of whose `size` bytes it sets. A text that
// does not fit is cut so that it ends in ">>>". The formatted part has 2047 bytes at most.
void FormatBounded(char* out, unsigned size, const std::string& prefix, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
