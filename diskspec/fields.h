#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

/// What an expression can ask of an export.
namespace DiskSpec {

enum class Field : std::uint8_t {
  name,
  uuid,
  size,
  readonly,
  clients,
  blocksize,
  state,
  compressed,
  age,
  id,
  bytesread,
  byteswritten,
  unknown,  ///< a name that this version does not know: nothing is known of it
};

/// The kinds of fields. Each has its operators and its way of writing values.
enum class Kind : std::uint8_t {
  text,      ///< compared byte by byte, or with a pattern
  uuid,      ///< text in which letter case does not count
  size,      ///< bytes, with units of 1024
  number,    ///< a whole number
  duration,  ///< seconds, with units
  truth,     ///< a condition by itself
  state,     ///< one of the states of an export
};

struct FieldDescription {
  Field field;
  std::string_view name;
  Kind kind;
  std::string_view meaning;
};

/// Every field but `unknown`, in the order of the enumeration. docs/diskspec.md holds the same rows.
std::span<const FieldDescription> fieldTable();

/// The row of `field`; null for `unknown`.
const FieldDescription* describe(Field field);

/// The row of the field called `name`, whose letter case does not count; null if there is none.
const FieldDescription* findField(std::string_view name);

/// The states, in words; the value of a state is its index here.
std::span<const std::string_view> stateWords();

/// What is known of one export. The texts belong to the caller.
struct Facts {
  std::string_view name{};
  std::string_view uuid{};  ///< lower case
  std::uint64_t size = 0;
  bool readonly = false;
  std::uint64_t clients = 0;
  std::uint64_t blocksize = 1;
  std::size_t state = 0;  ///< index in stateWords()
  bool compressed = false;
  std::optional<std::uint64_t> age{};  ///< seconds; none if it is not known
  std::uint64_t id = 0;
  std::uint64_t bytesread = 0;
  std::uint64_t byteswritten = 0;
};

}  // namespace DiskSpec
