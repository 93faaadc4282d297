#include "nbdd/exports/mapping.h"

#include <setjmp.h>
#include <signal.h>
#include <sys/mman.h>
#include <ucontext.h>

#include <cstring>
#include <limits>
#include <mutex>

#if defined(__x86_64__)
#include <emmintrin.h>
#endif

namespace Nbdd {

namespace {

// Where this thread goes on when a byte of the copy that it makes is not there.
thread_local sigjmp_buf* rescue = nullptr;

void onBusError(int signal, siginfo_t* /*info*/, void* context) {
  if (rescue != nullptr) {
    // The handler is left by a jump, so what it blocks must not stay blocked.
    ::pthread_sigmask(SIG_SETMASK, &static_cast<const ucontext_t*>(context)->uc_sigmask, nullptr);
    ::siglongjmp(*rescue, 1);
  }
  // Not ours: as if there were no handler.
  ::signal(signal, SIG_DFL);
  ::raise(signal);
}

void catchBusErrors() {
  static std::once_flag once;
  std::call_once(once, [] {
    struct sigaction action{};
    action.sa_sigaction = &onBusError;
    action.sa_flags = SA_SIGINFO;
    ::sigaction(SIGBUS, &action, nullptr);
  });
}

#if defined(__x86_64__)

// Written out, because a sanitizer would take two clients that write the same block for a mistake of ours.
void copy(std::byte* target, const std::byte* source, std::size_t length) {
  asm volatile("rep movsb" : "+D"(target), "+S"(source), "+c"(length) : : "memory");
}

/// Past the caches: what a client writes is rarely what the processor needs next, and to fetch the old bytes
/// first would cost as much as the writing.
__attribute__((no_sanitize("thread"))) void copyPast(std::byte* target, const std::byte* source,
                                                     std::size_t length) {
  constexpr std::size_t line = 64;
  const std::size_t head = (line - reinterpret_cast<std::uintptr_t>(target) % line) % line;
  copy(target, source, head);
  target += head;
  source += head;
  length -= head;
  for (; length >= line; length -= line, target += line, source += line) {
    auto* const to = reinterpret_cast<__m128i*>(target);
    const auto* const from = reinterpret_cast<const __m128i*>(source);
    const __m128i first = _mm_loadu_si128(from);
    const __m128i second = _mm_loadu_si128(from + 1);
    const __m128i third = _mm_loadu_si128(from + 2);
    const __m128i fourth = _mm_loadu_si128(from + 3);
    _mm_stream_si128(to, first);
    _mm_stream_si128(to + 1, second);
    _mm_stream_si128(to + 2, third);
    _mm_stream_si128(to + 3, fourth);
  }
  _mm_sfence();
  copy(target, source, length);
}

#else

void copy(std::byte* target, const std::byte* source, std::size_t length) {
  std::memcpy(target, source, length);
}
void copyPast(std::byte* target, const std::byte* source, std::size_t length) {
  copy(target, source, length);
}

#endif

/// From this length on the caches are passed by.
constexpr std::size_t largeCopy = std::size_t{128} * 1024;

bool copyGuarded(std::byte* target, const std::byte* source, std::size_t length, bool past) {
  sigjmp_buf place;
  if (sigsetjmp(place, 0) != 0) {
    rescue = nullptr;
    return false;
  }
  rescue = &place;
  (past ? copyPast : copy)(target, source, length);
  rescue = nullptr;
  return true;
}

}  // namespace

std::optional<Mapping> Mapping::of(int file, std::uint64_t size, bool writable) {
  if (size == 0 || size > std::numeric_limits<std::size_t>::max() / 2) {
    return std::nullopt;
  }
  catchBusErrors();
  void* const bytes =
      ::mmap(nullptr, size, PROT_READ | (writable ? PROT_WRITE : 0), MAP_SHARED | MAP_NORESERVE, file, 0);
  if (bytes == MAP_FAILED) {
    return std::nullopt;
  }
  ::madvise(bytes, size, MADV_DONTDUMP);
  return Mapping({static_cast<std::byte*>(bytes), size});
}

Mapping::~Mapping() {
  if (!bytes_.empty()) {
    ::munmap(bytes_.data(), bytes_.size());
  }
}

bool Mapping::read(std::span<std::byte> target, std::uint64_t offset) const {
  return copyGuarded(target.data(), bytes_.data() + offset, target.size(), false);
}

bool Mapping::write(std::span<const std::byte> source, std::uint64_t offset) const {
  return copyGuarded(bytes_.data() + offset, source.data(), source.size(), source.size() >= largeCopy);
}

}  // namespace Nbdd
