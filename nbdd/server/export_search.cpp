#include "nbdd/server/export_search.h"

#include <fmt/core.h>

#include <algorithm>
#include <utility>

#include "nbdd/exports/node.h"
#include "nbdd/limits.h"

namespace Nbdd {

namespace {

/// Exports that are looked at between two looks at the clock.
constexpr std::size_t exportsPerLook = 64;

std::size_t stateIndex(const Storage& storage) {
  const std::string_view word = storage.failed() ? "failed" : "enabled";
  const auto words = DiskSpec::stateWords();
  return static_cast<std::size_t>(std::ranges::find(words, word) - words.begin());
}

}  // namespace

DiskSpec::Facts factsOf(const Publication& publication, std::size_t clients,
                        std::chrono::steady_clock::time_point now) {
  const Control::ExportStatistics statistics = publication.counters->statistics();
  const auto age = std::chrono::duration_cast<std::chrono::seconds>(now - publication.counters->began());
  return {.name = publication.name,
          .uuid = publication.uuid,
          .size = publication.storage->size(),
          .readonly = publication.storage->readOnly(),
          .clients = clients,
          .blocksize = elementsOf(publication.storage->node()).size,
          .state = stateIndex(*publication.storage),
          .compressed = statistics.rx.numTransCompressed + statistics.tx.numTransCompressed > 0,
          .age = static_cast<std::uint64_t>(std::max<std::chrono::seconds::rep>(age.count(), 0)),
          .id = static_cast<std::uint32_t>(publication.id),
          .bytesread = statistics.tx.bytesTransTotal,
          .byteswritten = statistics.rx.bytesTransTotal};
}

std::optional<Publications> selectExports(const DiskSpec::Expression& expression, Publications exports,
                                          const CountClients& countClients,
                                          std::chrono::steady_clock::time_point deadline) {
  auto now = std::chrono::steady_clock::now();
  Publications selected;
  for (std::size_t index = 0; index < exports.size(); ++index) {
    if (index % exportsPerLook == 0) now = std::chrono::steady_clock::now();
    if (now >= deadline) return std::nullopt;
    const Publication& publication = *exports[index];
    if (expression.selects(factsOf(publication, countClients(publication.id), now))) {
      selected.push_back(std::move(exports[index]));
    }
  }
  return selected;
}

std::expected<Publications, Nbd::Extension::Refusal> searchExports(std::span<const std::byte> expression,
                                                                   Publications exports,
                                                                   const CountClients& countClients) {
  using Nbd::Extension::Refusal;
  const auto compiled = DiskSpec::decode(expression);
  if (!compiled) {
    return std::unexpected(
        Refusal{Nbd::ReplyType::invalid,
                fmt::format("{} (DiskSpec error {})", DiskSpec::sentenceOf(compiled.error().number),
                            static_cast<unsigned>(compiled.error().number))});
  }
  auto selected = selectExports(*compiled, std::move(exports), countClients,
                                std::chrono::steady_clock::now() + Limits::searchTime);
  if (!selected) {
    return std::unexpected(
        Refusal{Nbd::ReplyType::policy, "the expression takes too long over the exports of this server"});
  }
  return std::move(*selected);
}

}  // namespace Nbdd
