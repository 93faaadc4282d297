#pragma once

#include "control/descriptor.h"

namespace Host {

/// Lets Ctrl-C end the wait for the service instead of the utility, while an operator works with it
/// interactively. A command that was typed after `nbdctl` in a shell ends at Ctrl-C as every command does.
class Interruption {
 public:
  /// Interactive means: the process was started without arguments and reads from a terminal.
  Interruption();
  Interruption(const Interruption&) = delete;
  Interruption& operator=(const Interruption&) = delete;
  ~Interruption() = default;

  /// Readable once Ctrl-C was pressed within a Wait; -1 when Ctrl-C is to do what it always does.
  int descriptor() const { return signals_.number(); }

  /// The time in which Ctrl-C is caught. One that comes too late to interrupt anything is forgotten.
  class Wait {
   public:
    explicit Wait(const Interruption& interruption);
    Wait(const Wait&) = delete;
    Wait& operator=(const Wait&) = delete;
    ~Wait();

   private:
    const Interruption& interruption_;
  };

 private:
  Control::Descriptor signals_;
};

}  // namespace Host
