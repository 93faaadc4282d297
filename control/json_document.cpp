#include "control/json_document.h"

#include <nlohmann/json.hpp>

#include "control/limits.h"
#include "control/utf8.h"

namespace Control {

namespace {

using nlohmann::json;

const json& nodeOf(const void* node) { return *static_cast<const json*>(node); }

JsonValue valueOf(const json& node) { return node.is_null() ? JsonValue() : JsonValue(&node); }

// Counts brackets outside of strings, before any memory is spent on the tree.
bool nestsTooDeep(std::string_view text) {
  std::size_t depth = 0;
  bool inString = false;
  for (std::size_t position = 0; position < text.size(); ++position) {
    const char character = text[position];
    if (inString) {
      if (character == '\\') {
        ++position;
      } else if (character == '"') {
        inString = false;
      }
    } else if (character == '"') {
      inString = true;
    } else if (character == '{' || character == '[') {
      if (++depth > Limits::depth) return true;
    } else if ((character == '}' || character == ']') && depth > 0) {
      --depth;
    }
  }
  return false;
}

}  // namespace

bool JsonValue::isObject() const { return node_ != nullptr && nodeOf(node_).is_object(); }

bool JsonValue::isArray() const { return node_ != nullptr && nodeOf(node_).is_array(); }

JsonValue JsonValue::member(std::string_view name) const {
  if (!isObject()) return {};
  const json& object = nodeOf(node_);
  const auto found = object.find(name);
  return found == object.end() ? JsonValue() : valueOf(*found);
}

std::size_t JsonValue::size() const { return isArray() ? nodeOf(node_).size() : 0; }

JsonValue JsonValue::element(std::size_t index) const { return valueOf(nodeOf(node_)[index]); }

std::optional<std::uint64_t> JsonValue::asUnsigned() const {
  if (node_ == nullptr || !nodeOf(node_).is_number_unsigned()) return std::nullopt;
  return nodeOf(node_).get<std::uint64_t>();
}

std::optional<bool> JsonValue::asBoolean() const {
  if (node_ == nullptr || !nodeOf(node_).is_boolean()) return std::nullopt;
  return nodeOf(node_).get<bool>();
}

std::optional<std::string_view> JsonValue::asString() const {
  if (node_ == nullptr || !nodeOf(node_).is_string()) return std::nullopt;
  return nodeOf(node_).get_ref<const std::string&>();
}

struct JsonDocument::Tree {
  json root;
};

std::expected<JsonDocument, std::string> JsonDocument::parse(std::string_view text) {
  if (!isUtf8(text)) return std::unexpected("the message is not valid UTF-8");
  if (nestsTooDeep(text)) return std::unexpected("the message nests too deep");
  json root = json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (root.is_discarded()) return std::unexpected("the message is not valid JSON");
  return JsonDocument(std::make_unique<Tree>(std::move(root)));
}

JsonDocument::JsonDocument(std::unique_ptr<Tree> tree) : tree_(std::move(tree)) {}
JsonDocument::JsonDocument(JsonDocument&&) noexcept = default;
JsonDocument& JsonDocument::operator=(JsonDocument&&) noexcept = default;
JsonDocument::~JsonDocument() = default;

JsonValue JsonDocument::root() const { return valueOf(tree_->root); }

}  // namespace Control
