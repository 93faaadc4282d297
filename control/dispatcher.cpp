#include "control/dispatcher.h"

#include <unordered_map>
#include <utility>

#include "control/codec.h"
#include "control/definition.h"
#include "control/limits.h"
#include "control/message.h"
#include "control/methods.h"

namespace Control {

namespace {

constexpr std::string_view varlinkInterface = "org.varlink.service";

// Owes the caller of one call its outcome, and pays even when it is dropped.
class Debt {
 public:
  Debt(Dispatcher::Done done, bool oneway) : done_(std::move(done)), oneway_(oneway) {}
  Debt(Debt&& other) noexcept
      : done_(std::exchange(other.done_, nullptr)), oneway_(other.oneway_), method_(other.method_) {}
  Debt& operator=(Debt&&) = delete;
  Debt(const Debt&) = delete;
  Debt& operator=(const Debt&) = delete;
  ~Debt() { refuse({FailureCode::internalError, "the service dropped the call"}); }

  /// The operation that was called.
  void setMethod(std::string_view method) { method_ = method; }

  void pay(std::string reply) { settle(std::move(reply), std::nullopt); }

  void refuse(Failure failure) {
    std::string reply = ErrorReply::failed(failure);
    settle(std::move(reply), Refusal{.method = method_, .failure = std::move(failure)});
  }

 private:
  void settle(std::string reply, std::optional<Refusal> refusal) {
    if (auto done = std::exchange(done_, nullptr)) {
      done(Outcome{.reply = oneway_ ? std::string() : std::move(reply), .refusal = std::move(refusal)});
    }
  }

  Dispatcher::Done done_;
  bool oneway_;
  std::string_view method_;
};

template <class Output>
Result<std::string> replyOf(std::string_view outputName, const Result<Output>& result) {
  if (!result) return std::unexpected(result.error());
  JsonWriter writer;
  writer.beginObject();
  writer.key("parameters");
  writer.beginObject();
  if constexpr (!std::is_void_v<Output>) encodeMember(writer, outputName, *result);
  writer.endObject();
  writer.endObject();
  // A remote host's properties may nest deeper than a client of ours would take.
  if (writer.depth() > Limits::depth) {
    return std::unexpected(Failure{FailureCode::internalError, "the answer nests too deep to be sent"});
  }
  return writer.take();
}

// Reads the inputs, calls the operation, and pays the debt when it answers. `method` is a row of
// Methods::all.
template <class... Arguments>
void invoke(const Method<Arguments...>& method, Service& service, JsonValue parameters, Debt debt) {
  using Row = Method<Arguments...>;
  using Output = typename Row::Output;
  debt.setMethod(method.name);
  typename Row::Inputs inputs{};
  Complaint complaint;
  [&]<std::size_t... index>(std::index_sequence<index...>) {
    const bool fits = (decodeMember(parameters, method.inputs[index].name, method.inputs[index].presence,
                                    std::get<index>(inputs), complaint) &&
                       ...);
    if (!fits) {
      debt.pay(ErrorReply::invalidParameter(complaint.path()));
      return;
    }
    Answer<Output> answer = [&method, debt = std::move(debt)](Result<Output> result) mutable {
      auto reply = replyOf(method.output, result);
      if (reply) {
        debt.pay(std::move(*reply));
      } else {
        debt.refuse(std::move(reply.error()));
      }
    };
    (service.*method.operation)(std::move(std::get<index>(inputs))..., std::move(answer));
  }(std::make_index_sequence<Row::inputCount>());
}

}  // namespace

class Dispatcher::Table {
 public:
  Table(Service& service, Identity identity) : service_(service), identity_(std::move(identity)) {
    const auto add = [&](const auto& method) {
      rows_.emplace(method.name, [&method](Service& callee, JsonValue parameters, Debt debt) {
        invoke(method, callee, parameters, std::move(debt));
      });
    };
    std::apply([&](const auto&... method) { (add(method), ...); }, Methods::all);
  }

  void dispatch(const Call& call, Debt debt) const {
    const std::size_t dot = call.method.rfind('.');
    const std::string_view interface = call.method.substr(0, dot == std::string_view::npos ? 0 : dot);
    const std::string_view method = dot == std::string_view::npos ? call.method : call.method.substr(dot + 1);
    if (call.upgrade) {
      debt.pay(ErrorReply::methodNotImplemented(call.method));
    } else if (interface == interfaceName) {
      const auto row = rows_.find(method);
      if (row == rows_.end()) {
        debt.pay(ErrorReply::methodNotFound(call.method));
      } else {
        row->second(service_, call.parameters, std::move(debt));
      }
    } else if (interface == varlinkInterface) {
      debt.pay(describe(call, method));
    } else {
      debt.pay(ErrorReply::interfaceNotFound(interface));
    }
  }

 private:
  using Row = std::function<void(Service&, JsonValue, Debt)>;

  std::string describe(const Call& call, std::string_view method) const {
    if (method == "GetInfo") return info();
    if (method != "GetInterfaceDescription") return ErrorReply::methodNotFound(call.method);
    const auto interface = call.parameters.member("interface").asString();
    if (!interface) return ErrorReply::invalidParameter("interface");
    if (*interface == interfaceName) return description(nbdDefinition());
    if (*interface == varlinkInterface) return description(varlinkServiceDefinition());
    return ErrorReply::interfaceNotFound(*interface);
  }

  std::string info() const {
    JsonWriter writer;
    writer.beginObject();
    writer.key("parameters");
    writer.beginObject();
    encodeMember(writer, "vendor", identity_.vendor);
    encodeMember(writer, "product", identity_.product);
    encodeMember(writer, "version", identity_.version);
    encodeMember(writer, "url", identity_.url);
    writer.key("interfaces");
    writer.beginArray();
    writer.string(varlinkInterface);
    writer.string(interfaceName);
    writer.endArray();
    writer.endObject();
    writer.endObject();
    return writer.take();
  }

  static std::string description(std::string_view definition) {
    JsonWriter writer;
    writer.beginObject();
    writer.key("parameters");
    writer.beginObject();
    writer.key("description");
    writer.string(definition);
    writer.endObject();
    writer.endObject();
    return writer.take();
  }

  Service& service_;
  Identity identity_;
  std::unordered_map<std::string_view, Row> rows_;
};

Dispatcher::Dispatcher(Service& service, Identity identity)
    : table_(std::make_unique<Table>(service, std::move(identity))) {}

Dispatcher::~Dispatcher() = default;

void Dispatcher::dispatch(std::string_view message, Done done) {
  const auto call = parseCall(message);
  if (!call) {
    // Whether the peer waits for a reply cannot be known, so its later replies could not be told apart.
    done(Outcome{.reply = ErrorReply::failed({FailureCode::protocolError, call.error()}), .close = true});
    return;
  }
  table_->dispatch(*call, Debt(std::move(done), call->oneway));
}

}  // namespace Control
