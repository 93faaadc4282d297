#pragma once

#include <cstdint>
#include <initializer_list>
#include <type_traits>

namespace Control {

/// A set of flags of one enumeration whose values are masks of one bit each.
template <class Flag>
  requires std::is_same_v<std::underlying_type_t<Flag>, std::uint32_t>
class Flags {
 public:
  constexpr Flags() = default;
  constexpr Flags(std::initializer_list<Flag> flags) {
    for (const Flag flag : flags) set(flag);
  }

  constexpr bool has(Flag flag) const { return (mask_ & static_cast<std::uint32_t>(flag)) != 0; }
  constexpr void set(Flag flag) { mask_ |= static_cast<std::uint32_t>(flag); }

  /// All flags as one mask, as the operator's utility and the state file hold them.
  constexpr std::uint32_t mask() const { return mask_; }
  static constexpr Flags fromMask(std::uint32_t mask) {
    Flags flags;
    flags.mask_ = mask;
    return flags;
  }

  friend constexpr bool operator==(Flags, Flags) = default;

 private:
  std::uint32_t mask_ = 0;
};

}  // namespace Control
