// Console output of the library: plain formatted printing on standard output, and the two
// coloured heads of assertions and errors. No state.
#pragma once

#include <cstdarg>

// printf to standard output.
void zycLog(const char* format, ...) __attribute__((format(printf, 1, 2)));
void zycLogV(const char* format, va_list args);

// "ERROR line %d in %s() %s: " in red, then the text. The program goes on.
void zycError(int line, const char* function, const char* file, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
// "ASSERT line %d in %s() %s: " in red, then the text; then the process stops at a trap.
[[noreturn]] void zycAssertFail(int line, const char* function, const char* file,
                                const char* format, ...) __attribute__((format(printf, 4, 5)));

// The file name without its path.
const char* zycBaseName(const char* path);

// `function` is the qualified name the message shows, as in "VQSLSQCompressor::compress".
#define ZYC_ERROR(function, ...) zycError(__LINE__, function, zycBaseName(__FILE__), __VA_ARGS__)
#define ZYC_ASSERT(cond, function, ...)                                                 \
  do {                                                                                  \
    if (!(cond)) zycAssertFail(__LINE__, function, zycBaseName(__FILE__), __VA_ARGS__); \
  } while (0)
