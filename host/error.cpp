#include "host/error.h"

#include "platform/error.h"

namespace {

thread_local std::uint32_t lastError = 0;

}  // namespace

namespace Host {

void setError(std::uint32_t code) noexcept { lastError = code; }

}  // namespace Host

namespace Error {

std::uint32_t get() { return lastError; }

}  // namespace Error
