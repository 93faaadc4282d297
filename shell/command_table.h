#pragma once

#include <array>
#include <cstddef>
#include <vector>

#include "platform/nbd_service.h"
#include "platform/string.h"

/// The command language: which words there are and what runs for each.
namespace Shell {

/// Runs one command: takes over its hold on the service and the words that followed the command word, prints
/// through `output`, and returns one of the results below. The command loop does not look at the result.
using CommandHandler = int (*)(Ref<Services::NBD::Client::Service> service, std::vector<Ref<String>> words);

inline constexpr int succeeded = 0;
inline constexpr int failed = 1;

struct CommandEntry {
  Ref<String> name;
  Ref<String> synopsis;              ///< the arguments, for help; empty Ref: none to show
  Ref<String> help;                  ///< an empty Ref hides the command from help
  CommandHandler handler = nullptr;  ///< none: the command ends the program
};

inline constexpr std::size_t commandCount = 31;

/// All commands, in the order in which they are looked up and in which help shows them. Its texts are there
/// between `buildCommandTable` and the tear-down.
extern std::array<CommandEntry, commandCount> commandTable;

/// Fills the table and has it released at tear-down.
void buildCommandTable();

/// The first command whose name is `word`, the whole of it and letter by letter; null if there is none.
[[nodiscard]] const CommandEntry* findCommand(const Ref<String>& word);

}  // namespace Shell
