#pragma once

namespace Support {

/// A program on the console, for tests to run in a child process: prompts with " > " as the utility does,
/// ends the line, and answers each line with "<" the line ">". Some lines have answers of their own:
///
/// - "open": "left open" without a line end
/// - "part": "part" without a line end, and a flush as before a service call
/// - "wide": 1,100 characters without a line end
/// - "wait": "before... ", a flush as before a service call, and "after"
/// - "long": 100,000 lines
/// - "tabs": "a", a tab and "b" without a line end
/// - "quiet": nothing at all
/// - "fail": nothing, and the program returns 7 at once
int echoProgram();

}  // namespace Support
