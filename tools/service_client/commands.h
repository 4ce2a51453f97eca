// The commands of the tools' client core, one row each: the name and the
// interactive program's alias, the command number it sends, the arguments it
// takes, how its reply reads, and its line of help. The parser, the runner,
// the help text and (through the help text) the bash completion all read this
// one table; a new command is a new row. Also the splitting of a batch line
// into words, and the layout of a help text's table, which the programs'
// option tables share. Constant data and pure functions; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/service_client/failure.h"

namespace zel::service_client {

// What follows the command word.
enum class Arguments : uint8_t {
  None,             // nothing: any argument is a usage error
  NumberAndFields,  // a command number from 1 to 5, then fields sent as they are typed
};

// How the reply to a command reads as plain output.
enum class ReplyStyle : uint8_t {
  FirstField,  // a success with a first field; that field is the output
  EachField,   // a success; each field is a line of output (none for no field)
  Whole,       // the code and each field, tab-separated, printed whatever the code
  Events,      // not a request: the watch of the service's events
};

struct Command {
  const char* name;   // canonical name, used in JSON output
  const char* alias;  // the interactive program's name for it, or nullptr
  uint32_t number;    // the command number sent; 0 when the arguments give it or none is sent
  Arguments arguments;
  ReplyStyle reply;
  bool inBatch;               // may stand on a line of a batch
  const char* argumentsHelp;  // the arguments as the help text shows them; "" for none
  const char* summary;        // what it does, for the help text
  const char* noFirstField;   // FirstField: why a success without its first field fails
};

// The table, in the order the help text lists it: a view of constant data.
struct CommandList {
  const Command* first;
  size_t count;
  const Command* begin() const { return first; }
  const Command* end() const { return first + count; }
};
CommandList AllCommands();

// The command named `word` by its name or its alias; nullptr for none.
const Command* FindCommand(const std::string& word);

// One command as typed, checked against the table: what it sends.
struct Request {
  const Command* command = nullptr;
  std::string typed;                // the command word as typed (Shown() in error lines)
  uint32_t number = 0;              // the command number sent (0 for the watch)
  std::vector<std::string> fields;  // the request's fields after the number
};

// Checks the command word (`words[0]`) and its arguments against the table;
// false with a usage failure (status 2) when they do not fit. A missing or
// unknown command word is said without naming a way to learn the commands
// (the failure's `commandUnknown` is set), which each front end knows best.
bool ParseRequest(const std::vector<std::string>& words, Request& request, Failure& failure);

// The words of a batch line, split at blanks and tabs, none empty; false
// with a usage failure for a line that holds a NUL byte (which no command or
// field may hold).
bool SplitLine(const std::string& line, std::vector<std::string>& words, Failure& failure);

// Whether a batch line of these words asks for nothing: it is blank, or a
// comment (its first word begins with '#').
bool IsBlankOrComment(const std::vector<std::string>& words);

// One row of a help text's table: what is typed, and what it does.
struct HelpRow {
  std::string left;
  const char* summary;
};

// The rows as a help text shows them, one a line: indented by two blanks,
// the summaries lined up two blanks after the longest left column.
std::string HelpColumns(const std::vector<HelpRow>& rows);

// The help rows of the table's commands ("ping (send_ping)", "send N
// [FIELD...]"), in its order; only those a batch line may hold when
// `batchOnly`.
std::vector<HelpRow> CommandRows(bool batchOnly);

}  // namespace zel::service_client
