#include "nbdd/reservations/scram.h"

#include <fmt/core.h>
#include <gsasl.h>

#include <charconv>
#include <functional>
#include <system_error>
#include <utility>

#include "control/base64.h"
#include "nbdd/reservations/digest.h"
#include "nbdd/reservations/limits.h"

namespace Nbdd::Reservations {

namespace {

constexpr const char* plainMechanism = "SCRAM-SHA-256";
constexpr const char* boundMechanism = "SCRAM-SHA-256-PLUS";
constexpr const char* account = "reservation";

std::string base64(std::span<const std::byte> octets) { return Control::toBase64(asText(octets)); }

std::string hexadecimal(std::span<const std::byte> octets) {
  std::string text;
  for (const std::byte octet : octets) text += fmt::format("{:02x}", std::to_integer<unsigned int>(octet));
  return text;
}

/// Text of a session's property, wiped as soon as the library has its copy.
void setSecret(Gsasl_session* session, Gsasl_property property, std::string text) {
  ::gsasl_property_set(session, property, text.c_str());
  ::explicit_bzero(text.data(), text.size());
}

/// Memory that the library allocated.
struct Freed {
  void operator()(char* text) const { ::gsasl_free(text); }
};

/// One run of a mechanism of the library: takes the peer's messages, gives ours.
class Run {
 public:
  using Property = std::move_only_function<int(Gsasl_session*, Gsasl_property)>;

  /// `property` gives the library what it asks for, and returns GSASL_OK or why not.
  Run(bool isClient, bool isBound, Property property) : property_(std::move(property)) {
    if (const int error = ::gsasl_init(&context_); error != GSASL_OK) refused(error);
    ::gsasl_callback_set(context_, &Run::onProperty);
    ::gsasl_callback_hook_set(context_, this);
    const char* const mechanism = isBound ? boundMechanism : plainMechanism;
    const int error = isClient ? ::gsasl_client_start(context_, mechanism, &session_)
                               : ::gsasl_server_start(context_, mechanism, &session_);
    if (error != GSASL_OK) {
      ::gsasl_done(context_);
      refused(error);
    }
  }
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;
  ~Run() {
    ::gsasl_finish(session_);
    ::gsasl_done(context_);
  }

  struct Step {
    int result = GSASL_OK;  ///< GSASL_OK at the end of the run, GSASL_NEEDS_MORE before
    std::string output;
  };
  Step step(std::string_view input) {
    char* output = nullptr;
    std::size_t length = 0;
    const int result = ::gsasl_step(session_, input.data(), input.size(), &output, &length);
    const std::unique_ptr<char, Freed> owner(output);
    const bool went = result == GSASL_OK || result == GSASL_NEEDS_MORE;
    return {.result = result,
            .output = went && output != nullptr ? std::string(output, length) : std::string()};
  }

 private:
  /// Out of memory, or a library without the mechanism.
  [[noreturn]] static void refused(int error) {
    throw std::system_error(std::make_error_code(std::errc::not_supported), ::gsasl_strerror(error));
  }
  static int onProperty(Gsasl* context, Gsasl_session* session, Gsasl_property property) {
    return static_cast<Run*>(::gsasl_callback_hook_get(context))->property_(session, property);
  }

  Property property_;
  Gsasl* context_ = nullptr;
  Gsasl_session* session_ = nullptr;
};

int giveBinding(Gsasl_session* session, const ChannelBinding& binding) {
  if (!binding) return GSASL_NO_CALLBACK;
  ::gsasl_property_set(session, GSASL_CB_TLS_EXPORTER, Control::toBase64(*binding).c_str());
  return GSASL_OK;
}

/// What both ends have seen, up to the client's proof.
struct Transcript {
  std::string clientFirst;
  std::string serverFirst;
  std::string clientFinal;
};

/// The server's key comes from the password; the messages hold the nonces of both ends, and the channel's
/// binding if there is one. So the key is new in every exchange, and the same on two ends only if they are
/// the ends of one exchange.
Key leaseKeyOf(const Key& serverKey, const Transcript& transcript) {
  Digest digest(serverKey);
  digest.field("org.talvek.NBD lease key 1")
      .field(transcript.clientFirst)
      .field(transcript.serverFirst)
      .field(transcript.clientFinal);
  return Key(digest.take());
}

struct Keys {
  Key storedKey;
  Key serverKey;
};

Keys keysOf(const Key& saltedPassword) {
  Keys keys;
  Key clientKey;
  const auto chars = [](Key& key) { return reinterpret_cast<char*>(key.octets().data()); };
  const int error = ::gsasl_scram_secrets_from_salted_password(
      GSASL_HASH_SHA256, reinterpret_cast<const char*>(saltedPassword.octets().data()), chars(clientKey),
      chars(keys.serverKey), chars(keys.storedKey));
  if (error != GSASL_OK) {
    throw std::system_error(std::make_error_code(std::errc::not_supported), ::gsasl_strerror(error));
  }
  return keys;
}

bool isMessage(std::string_view text) {
  return !text.empty() && text.size() <= Limits::scramMessage && text.find('\0') == std::string_view::npos;
}

}  // namespace

std::optional<std::string> preparePassword(std::string_view password) {
  if (password.empty() || password.size() > Limits::passwordLength ||
      password.find('\0') != std::string_view::npos) {
    return std::nullopt;
  }
  char* prepared = nullptr;
  int detail = 0;
  constexpr Gsasl_saslprep_flags storedString{};  // the strict form: no code points that are not assigned
  const int error = ::gsasl_saslprep(std::string(password).c_str(), storedString, &prepared, &detail);
  const std::unique_ptr<char, Freed> owner(prepared);
  if (error != GSASL_OK || prepared == nullptr || *prepared == '\0') return std::nullopt;
  return std::string(prepared);
}

Verifier makeVerifier(const std::string& prepared, std::uint32_t iterations) {
  Verifier verifier;
  verifier.salt = randomOctets<Verifier::saltSize>();
  verifier.iterations = iterations;
  Keys keys = keysOf(stretch(prepared, verifier.salt, iterations));
  verifier.storedKey = keys.storedKey;
  verifier.serverKey = keys.serverKey;
  return verifier;
}

std::optional<ServerFirst> parseServerFirst(std::string_view text) {
  if (!isMessage(text)) return std::nullopt;
  const auto attribute = [&text](std::string_view name) -> std::optional<std::string_view> {
    if (!text.starts_with(name)) return std::nullopt;
    const std::string_view value = text.substr(name.size(), text.find(',') - name.size());
    text.remove_prefix(std::min(text.size(), name.size() + value.size() + 1));
    return value;
  };
  const auto nonce = attribute("r=");
  const auto salt = nonce ? attribute("s=") : std::nullopt;
  const auto count = salt ? attribute("i=") : std::nullopt;
  // Nothing behind it: extensions would have to be understood.
  if (!count || nonce->empty() || !text.empty()) return std::nullopt;
  std::optional<std::string> octets = Control::fromBase64(*salt);
  ServerFirst first;
  const auto [end, error] = std::from_chars(count->data(), count->data() + count->size(), first.iterations);
  const bool isNumber = error == std::errc{} && end == count->data() + count->size();
  if (!octets || octets->empty() || !isNumber || first.iterations < Limits::fewestIterations ||
      first.iterations > Limits::mostIterations) {
    return std::nullopt;
  }
  first.salt = *std::move(octets);
  return first;
}

// --- The server's part

struct ScramServer::Exchange {
  Exchange(Verifier own, ChannelBinding channel)
      : verifier(std::move(own)),
        binding(std::move(channel)),
        run(false, binding.has_value(),
            [this](Gsasl_session* session, Gsasl_property property) { return give(session, property); }) {}

  int give(Gsasl_session* session, Gsasl_property property) const {
    switch (property) {
      case GSASL_SCRAM_ITER:
        ::gsasl_property_set(session, property, std::to_string(verifier.iterations).c_str());
        return GSASL_OK;
      case GSASL_SCRAM_SALT:
        ::gsasl_property_set(session, property, base64(verifier.salt).c_str());
        return GSASL_OK;
      case GSASL_SCRAM_SERVERKEY:
        setSecret(session, property, base64(verifier.serverKey.octets()));
        return GSASL_OK;
      case GSASL_SCRAM_STOREDKEY:
        setSecret(session, property, base64(verifier.storedKey.octets()));
        return GSASL_OK;
      case GSASL_CB_TLS_EXPORTER:
        return giveBinding(session, binding);
      default:
        return GSASL_NO_CALLBACK;
    }
  }

  Verifier verifier;
  ChannelBinding binding;
  Run run;
  Transcript transcript;
};

ScramServer::ScramServer(Verifier verifier, ChannelBinding binding)
    : exchange_(std::make_unique<Exchange>(std::move(verifier), std::move(binding))) {}
ScramServer::~ScramServer() = default;
ScramServer::ScramServer(ScramServer&&) noexcept = default;
ScramServer& ScramServer::operator=(ScramServer&&) noexcept = default;

std::optional<std::string> ScramServer::begin(std::string_view clientFirst) {
  if (!isMessage(clientFirst)) return std::nullopt;
  Run::Step step = exchange_->run.step(clientFirst);
  if (step.result != GSASL_NEEDS_MORE) return std::nullopt;
  exchange_->transcript.clientFirst = clientFirst;
  exchange_->transcript.serverFirst = step.output;
  return std::move(step.output);
}

ScramServer::Outcome ScramServer::finish(std::string_view clientFinal) {
  if (!isMessage(clientFinal)) return {};
  Run::Step step = exchange_->run.step(clientFinal);
  if (step.result == GSASL_AUTHENTICATION_ERROR) return {.verdict = Verdict::wrongPassword};
  if (step.result != GSASL_OK) return {};
  exchange_->transcript.clientFinal = clientFinal;
  return {.verdict = Verdict::accepted,
          .serverFinal = std::move(step.output),
          .leaseKey = leaseKeyOf(exchange_->verifier.serverKey, exchange_->transcript)};
}

// --- The client's part

struct ScramClient::Exchange {
  explicit Exchange(ChannelBinding channel)
      : binding(std::move(channel)),
        run(true, binding.has_value(),
            [this](Gsasl_session* session, Gsasl_property property) { return give(session, property); }) {}

  int give(Gsasl_session* session, Gsasl_property property) const {
    switch (property) {
      case GSASL_AUTHID:
        ::gsasl_property_set(session, property, account);
        return GSASL_OK;
      case GSASL_SCRAM_SALTED_PASSWORD:
        setSecret(session, property, hexadecimal(saltedPassword.octets()));
        return GSASL_OK;
      case GSASL_CB_TLS_EXPORTER:
        return giveBinding(session, binding);
      default:
        return GSASL_NO_CALLBACK;
    }
  }

  ChannelBinding binding;
  Run run;
  Transcript transcript;
  Key saltedPassword;
  Key leaseKey;
};

ScramClient::ScramClient(ChannelBinding binding)
    : exchange_(std::make_unique<Exchange>(std::move(binding))) {}
ScramClient::~ScramClient() = default;
ScramClient::ScramClient(ScramClient&&) noexcept = default;
ScramClient& ScramClient::operator=(ScramClient&&) noexcept = default;

std::string ScramClient::begin() {
  Run::Step step = exchange_->run.step({});
  if (step.result != GSASL_NEEDS_MORE) {
    throw std::system_error(std::make_error_code(std::errc::not_supported), ::gsasl_strerror(step.result));
  }
  exchange_->transcript.clientFirst = step.output;
  return std::move(step.output);
}

std::optional<std::string> ScramClient::answer(std::string_view serverFirst, const std::string& prepared) {
  const std::optional<ServerFirst> first = parseServerFirst(serverFirst);
  if (!first) return std::nullopt;
  exchange_->saltedPassword = stretch(prepared, std::as_bytes(std::span(first->salt)), first->iterations);
  Run::Step step = exchange_->run.step(serverFirst);
  if (step.result != GSASL_NEEDS_MORE) return std::nullopt;
  exchange_->transcript.serverFirst = serverFirst;
  exchange_->transcript.clientFinal = step.output;
  exchange_->leaseKey = leaseKeyOf(keysOf(exchange_->saltedPassword).serverKey, exchange_->transcript);
  return std::move(step.output);
}

bool ScramClient::verify(std::string_view serverFinal) {
  return isMessage(serverFinal) && exchange_->run.step(serverFinal).result == GSASL_OK;
}

const Key& ScramClient::leaseKey() const { return exchange_->leaseKey; }

}  // namespace Nbdd::Reservations
