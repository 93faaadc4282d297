#pragma once

namespace Definitions {

/// Says where in a mask an enumerator stands whose number is its bit: number n is bit n.
template <class Enumeration, class Mask>
struct EnumSeqConvert {
  [[nodiscard]] static constexpr Mask toMask(Enumeration enumerator) {
    return static_cast<Mask>(Mask{1} << static_cast<Mask>(enumerator));
  }
};

/// A set of enumerators, held as a mask. `Convert::toMask` gives each enumerator's bit.
template <class Enumeration, class Mask, class Convert>
class Set {
 public:
  constexpr Set() = default;
  constexpr explicit Set(Mask mask) : mask_(mask) {}

  /// All members at once, one bit each; bits that no enumerator has are kept.
  [[nodiscard]] constexpr Mask mask() const { return mask_; }

  [[nodiscard]] constexpr bool contains(Enumeration enumerator) const {
    return (mask_ & Convert::toMask(enumerator)) != 0;
  }

  constexpr void add(Enumeration enumerator) { mask_ |= Convert::toMask(enumerator); }

  friend bool operator==(const Set&, const Set&) = default;

 private:
  Mask mask_{};
};

}  // namespace Definitions
