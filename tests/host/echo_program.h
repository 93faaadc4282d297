#pragma once

namespace Support {

/// A program on the console, for tests to run in a child process: prompts with " > " as the utility does,
/// ends the line, and answers each line with "<" the line ">". The line "open" is answered "left open"
/// without a line end; "wait" with "before... ", a flush as before a service call, and "after"; "long" with
/// 100,000 lines.
int echoProgram();

}  // namespace Support
