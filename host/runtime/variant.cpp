#include "platform/variant.h"

#include <utility>

namespace Services::NBD::Client::Types {

Ref<BinaryData> BinaryData::create(std::vector<std::byte> bytes) {
  return Ref<BinaryData>(new BinaryData(std::move(bytes)));  // NOLINT(cppcoreguidelines-owning-memory)
}

BinaryData::BinaryData(std::vector<std::byte> bytes) noexcept : bytes_(std::move(bytes)) {}

std::uint64_t BinaryData::length() const noexcept { return bytes_.size(); }

const std::vector<std::byte>& BinaryData::bytes() const noexcept { return bytes_; }

Variant::Variant() noexcept = default;

Variant::Variant(std::uint64_t count) : count_(count), capacity_(count) {
  if (count > 0) {
    entries_ = std::make_unique<VariantEntry[]>(count);
  }
}

Variant::Variant(const Variant& other) : Variant(other.count_) {
  for (std::uint64_t i = 0; i < count_; ++i) {
    entries_[i] = other.entries_[i];
  }
}

Variant::Variant(Variant&& other) noexcept
    : count_(std::exchange(other.count_, 0)),
      capacity_(std::exchange(other.capacity_, 0)),
      entries_(std::move(other.entries_)) {}

Variant& Variant::operator=(Variant other) noexcept {
  std::swap(count_, other.count_);
  std::swap(capacity_, other.capacity_);
  std::swap(entries_, other.entries_);
  return *this;
}

// An array's elements go from the last to the first, which is what the list promises.
Variant::~Variant() = default;

const VariantEntry& Variant::entry(std::uint64_t index) const {
  if (index >= count_) {
    Proc::failFast();
  }
  return entries_[index];
}

VariantEntry& Variant::entry(std::uint64_t index) {
  return const_cast<VariantEntry&>(std::as_const(*this).entry(index));
}

}  // namespace Services::NBD::Client::Types
