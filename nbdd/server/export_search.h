#pragma once

#include <chrono>
#include <cstddef>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "control/records.h"
#include "diskspec/expression.h"
#include "nbd/extension_peers.h"
#include "nbdd/exports/publication.h"

/// Which published exports a DiskSpec expression selects. Looking through a hundred thousand takes some tens
/// of milliseconds, so it is nothing for a thread on which others wait.
namespace Nbdd {

using Publications = std::vector<std::shared_ptr<const Publication>>;

/// How many clients an export has. Called on the thread that searches.
using CountClients = std::function<std::size_t(Control::ExportId)>;

/// What an expression can ask of a published export. The texts are the publication's.
DiskSpec::Facts factsOf(const Publication& publication, std::size_t clients,
                        std::chrono::steady_clock::time_point now);

/// Those of `exports` that `expression` selects, in their order; nothing if they are so many, and the
/// expression is so costly, that `deadline` comes first. Any thread.
std::optional<Publications> selectExports(const DiskSpec::Expression& expression, Publications exports,
                                          const CountClients& countClients,
                                          std::chrono::steady_clock::time_point deadline);

/// The same for an encoded expression of a client, within `Limits::searchTime`; or what the client is told:
/// that the expression makes no sense, or takes too long.
std::expected<Publications, Nbd::Extension::Refusal> searchExports(std::span<const std::byte> expression,
                                                                   Publications exports,
                                                                   const CountClients& countClients);

}  // namespace Nbdd
