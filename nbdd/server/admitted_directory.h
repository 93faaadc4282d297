#pragma once

#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "nbd/export_view.h"
#include "nbdd/server/conversation.h"
#include "nbdd/server/export_table.h"

namespace Nbdd {

/// The exports as a client sees them while the server may be reserved: if it is, and the client has not shown
/// that it holds the lease, it may use none.
class AdmittedDirectory final : public Nbd::ExportDirectory {
 public:
  /// All outlive this. The conversation is the one of the moment; without one the client can hold nothing.
  AdmittedDirectory(const Nbd::ExportDirectory& exports, const ExportTable& table,
                    const std::unique_ptr<Conversation>& conversation)
      : exports_(exports), table_(table), conversation_(conversation) {}

  std::optional<Nbd::ExportView> find(std::string_view name) const override {
    std::optional<Nbd::ExportView> view = exports_.find(name);
    if (view && view->refusal.empty() && !isAdmitted())
      view->refusal = "this server is reserved by another host";
    return view;
  }

  std::shared_ptr<const std::vector<Nbd::ListedExport>> list() const override { return exports_.list(); }

 private:
  bool isAdmitted() const { return table_.admits(conversation_ ? conversation_->lease() : std::nullopt); }

  const Nbd::ExportDirectory& exports_;
  const ExportTable& table_;
  const std::unique_ptr<Conversation>& conversation_;
};

}  // namespace Nbdd
