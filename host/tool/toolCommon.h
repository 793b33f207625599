// What every command of the zyl tool shares: exit codes, messages, the quiet console, option
// parsing and the codec's tag table as the tool presents it.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// Exit codes a script can rely on.
constexpr int kExitOk = 0;
constexpr int kExitUsage = 1;    // bad command line
constexpr int kExitInput = 2;    // an input is missing, unreadable or damaged
constexpr int kExitOutput = 3;   // an output can't be written, or the job failed
constexpr int kExitStopped = 4;  // stopped by Ctrl-C; the movie holds the frames done
constexpr int kExitMismatch = 5; // append, replace: the two movies don't fit together
constexpr int kExitRange = 6;    // replace: the frame range is not one the movie can take

// The tool's own standard output: a copy of file descriptor 1 made at start-up, so that it
// still reaches the terminal or pipe while the library's console is silenced.
FILE* ToolOut();
// "zyl: error: " + text on stderr; returns `code`.
int Fail(int code, const char* format, ...) __attribute__((format(printf, 2, 3)));
// "zyl: " + text on stderr.
void Note(const char* format, ...) __attribute__((format(printf, 1, 2)));

// While alive, the library's console (standard output) is caught: with `verbose` it is passed
// on to standard error as it comes, and its last lines are kept either way, so that a refusal
// can be explained with the library's own words.
class QuietConsole {
 public:
  explicit QuietConsole(bool verbose);
  ~QuietConsole();
  QuietConsole(const QuietConsole&) = delete;
  QuietConsole& operator=(const QuietConsole&) = delete;

  // Ends the capture (the destructor does it too) and returns the last lines caught.
  std::string Stop();

 private:
  void Drain(int readEnd);

  bool verbose_;
  int saved_ = -1;
  std::thread reader_;
  std::string caught_;
};

// The last non-empty line of a console text, without its colour codes; empty when none.
std::string LastConsoleLine(const std::string& text);

// A command line after the command word: options (with their values) and plain arguments.
class Arguments {
 public:
  explicit Arguments(const std::vector<std::string>& args);
  // Takes "--name" (a flag). True when it was given; `at` gets the place of its last
  // occurrence among the words.
  bool Flag(const char* name, size_t* at = nullptr);
  // Takes "--name VALUE" or "--name=VALUE"; every occurrence in order, with its place.
  std::vector<std::pair<size_t, std::string>> Occurrences(const char* name);
  std::vector<std::string> Values(const char* name);
  // The last value of "--name", or empty; `given` tells whether it was there, `at` where.
  // Given twice with different values, the last counts and a warning says so.
  std::string Value(const char* name, bool* given = nullptr, size_t* at = nullptr);
  // What is left once every known option was taken: plain arguments. An unknown "--x" left
  // over is reported by Unknown().
  std::vector<std::string> Plain() const;
  std::string Unknown() const;
  // Set when an option that needs a value stands last.
  const std::string& missingValue() const { return missingValue_; }

 private:
  std::vector<std::string> args_;
  std::vector<bool> taken_;
  std::string missingValue_;
};

// "zyl: warning: " + text on stderr.
void Warn(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Of options that set the same thing, the one given last counts, and a warning names the
// ones it overrides. `places` holds each option's place (npos: not given); returns the index
// of the last one given, or -1 when none was.
int LastGiven(const std::vector<std::pair<const char*, size_t>>& places);

// Parses a whole decimal number (no sign, no junk). False for anything else.
bool ParseCount(const std::string& text, uint32_t* value);
// Parses a whole decimal number with an optional sign.
bool ParseInt(const std::string& text, int32_t* value);

// One tag of the codec's parameter table as the tool presents it.
struct ToolParam {
  const char* name;      // as typed: "RATI", "SND", "YUV"
  uint32_t tag;          // the little-endian value of the four bytes
  int32_t low, high;     // the values the tool accepts
  bool setOnly;          // the codec can't read it back
  int32_t documentedDefault;  // for set-only tags
  const char* meaning;
};
const std::vector<ToolParam>& ToolParams();
// The entry of a name typed by a user, case as typed; null when unknown.
const ToolParam* FindToolParam(const std::string& name);
// The four characters of a tag for messages, "SND\0" shown as "SND".
std::string TagText(uint32_t tag);

// True when `path` can be opened and read as a file; otherwise `reason` is
// "PATH: the system's reason".
bool Readable(const std::string& path, std::string* reason);
// Readable, and starting with a movie's magic; otherwise `reason` says which is wrong.
bool LooksLikeMovie(const std::string& path, std::string* reason);

// UTF-16 file names for the codec.
std::u16string Utf16(const std::string& text);

// "1 frame", "2 frames".
std::string Count(uint64_t count, const char* singular, const char* plural);

// Byte counts for people: "1.23 MB", "456 kB", "789 B".
std::string HumanBytes(double bytes);
