#include "diskspec/fields.h"

#include <algorithm>
#include <array>

#include "diskspec/letters.h"

namespace DiskSpec {

namespace {

constexpr std::array table{
    FieldDescription{Field::name, "name", Kind::text, "The name by which clients ask for the export."},
    FieldDescription{Field::uuid, "uuid", Kind::uuid, "The export's UUID."},
    FieldDescription{Field::size, "size", Kind::size, "How many bytes the export has."},
    FieldDescription{Field::readonly, "readonly", Kind::truth, "Clients can only read."},
    FieldDescription{Field::clients, "clients", Kind::number, "How many clients are connected to it."},
    FieldDescription{Field::blocksize, "blocksize", Kind::size,
                     "The size of one element of its node, 512 for most disks."},
    FieldDescription{Field::state, "state", Kind::state,
                     "The export's state; a server offers to others only what is enabled."},
    FieldDescription{Field::compressed, "compressed", Kind::truth,
                     "Transfers of it have been compressed, counted as for `stat`."},
    FieldDescription{Field::age, "age", Kind::duration,
                     "How long it has been there: since it was added, or its server's service was started if "
                     "that was later."},
    FieldDescription{Field::id, "id", Kind::number, "The export's ID on its server."},
    FieldDescription{Field::bytesread, "bytesread", Kind::size,
                     "How many bytes clients have read of it, counted as for `stat`."},
    FieldDescription{Field::byteswritten, "byteswritten", Kind::size,
                     "How many bytes clients have written to it, counted as for `stat`."},
};

constexpr std::array<std::string_view, 5> states{"added", "enabled", "disabling", "disabled", "failed"};

}  // namespace

std::span<const FieldDescription> fieldTable() { return table; }

const FieldDescription* describe(Field field) {
  const auto* const row = std::ranges::find(table, field, &FieldDescription::field);
  return row == table.end() ? nullptr : row;
}

const FieldDescription* findField(std::string_view name) {
  const auto* const row = std::ranges::find_if(
      table, [name](const auto& candidate) { return sameLetters(candidate.name, name); });
  return row == table.end() ? nullptr : row;
}

std::span<const std::string_view> stateWords() { return states; }

}  // namespace DiskSpec
