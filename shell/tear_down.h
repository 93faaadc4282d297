#pragma once

namespace Shell {

/// Puts `function` on the list of what is to be released when the program is torn down. 0, or -1 if there is
/// no memory for it.
int registerTearDown(void (*function)());

/// Runs the list, what was registered last first, and leaves it empty. A function may register others; they
/// run too.
void runTearDown();

}  // namespace Shell
