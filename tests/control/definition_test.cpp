#include "control/definition.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "control/codec.h"
#include "control/dispatcher.h"
#include "control/fields.h"
#include "control/methods.h"
#include "tests/control/fake_service.h"

namespace Control {
namespace {

// The definition, read from its text: what stands in each pair of parentheses, without comments and blanks.
struct Definition {
  std::map<std::string, std::string> types;    // "Endpoint" -> "address:string,port:?int"
  std::map<std::string, std::string> methods;  // "ExportAdd" -> "(descriptor:ExportDescriptor)->(id:int)"
  std::vector<std::string> methodOrder;
  std::map<std::string, std::string> errors;

  explicit Definition(std::string_view text) {
    std::istringstream lines{std::string(text)};
    std::string bare;
    for (std::string line; std::getline(lines, line);) bare += line.substr(0, line.find('#')) + "\n";
    const std::regex member(R"((type|method|error)\s+(\w+)\s*(\([^()]*\)(?:\s*->\s*\([^()]*\))?))");
    for (auto match = std::sregex_iterator(bare.begin(), bare.end(), member); match != std::sregex_iterator();
         ++match) {
      const std::string kind = (*match)[1];
      const std::string name = (*match)[2];
      std::string body = (*match)[3];
      std::erase_if(body, [](unsigned char character) { return std::isspace(character) != 0; });
      if (kind == "method") {
        EXPECT_TRUE(methods.emplace(name, body).second) << name << " is defined twice";
        methodOrder.push_back(name);
      } else {
        auto& place = kind == "type" ? types : errors;
        EXPECT_TRUE(place.emplace(name, body.substr(1, body.size() - 2)).second)
            << name << " is defined twice";
      }
    }
  }
};

// The same, from the tables that encode and decode.

template <class T>
struct TypeText;
template <class T>
std::string typeText() {
  if constexpr (std::same_as<T, bool>) {
    return "bool";
  } else if constexpr (std::unsigned_integral<T>) {
    return "int";
  } else if constexpr (std::same_as<T, std::string>) {
    return "string";
  } else if constexpr (std::same_as<T, VariantEntry>) {
    return "VariantEntry";
  } else if constexpr (Worded<T>) {
    return std::string(Words<T>::name);
  } else if constexpr (std::is_enum_v<T>) {
    return "int";
  } else if constexpr (Described<T>) {
    return std::string(Description<T>::name);
  } else {
    return TypeText<T>::text();
  }
}
template <class T>
struct TypeText<std::vector<T>> {
  static std::string text() { return "[]" + typeText<T>(); }
};
template <class T>
struct TypeText<std::optional<T>> {
  static std::string text() { return "?" + typeText<T>(); }
};
template <class Flag>
struct TypeText<Flags<Flag>> {
  static std::string text() { return "[]" + std::string(Words<Flag>::name); }
};

template <class T>
std::string fieldText(std::string_view name, Presence presence) {
  return std::string(name) + ":" + (presence == Presence::defaulted ? "?" : "") + typeText<T>();
}

std::string joined(const std::vector<std::string>& texts) {
  std::string result;
  for (const std::string& text : texts) result += (result.empty() ? "" : ",") + text;
  return result;
}

template <class Record>
void expectRecord(std::map<std::string, std::string>& types) {
  const auto text = std::apply(
      []<class... Value>(const Field<Record, Value>&... field) {
        return joined({fieldText<Value>(field.name, field.presence)...});
      },
      Description<Record>::fields);
  const std::string name(Description<Record>::name);
  EXPECT_EQ(types[name], text) << name;
  types.erase(name);
}

template <class Enumeration>
void expectWords(std::map<std::string, std::string>& types) {
  std::vector<std::string> words;
  for (const auto& word : Words<Enumeration>::list) words.emplace_back(word.text);
  const std::string name(Words<Enumeration>::name);
  EXPECT_EQ(types[name], joined(words)) << name;
  types.erase(name);
}

TEST(DefinitionTest, HoldsTheTypesThatAreSentAndNoOthers) {
  auto types = Definition(nbdDefinition()).types;
  EXPECT_EQ(types["VariantEntry"],
            "name:string,number:?int,text:?string,binary:?string,nested:?[]VariantEntry");
  types.erase("VariantEntry");
  expectRecord<Endpoint>(types);
  expectRecord<ExportDescriptor>(types);
  expectRecord<ExportInfo>(types);
  expectRecord<ExportClientInfo>(types);
  expectRecord<ExportTransferCounters>(types);
  expectRecord<ExportStatistics>(types);
  expectRecord<ImportDescriptor>(types);
  expectRecord<ImportInfo>(types);
  expectRecord<NetIfFirewallState>(types);
  expectRecord<RemoteServerDescriptor>(types);
  expectRecord<RemoteExportEntry>(types);
  expectRecord<RemoteExportList>(types);
  expectRecord<RemoteServerReservationRequest>(types);
  expectRecord<RemoteServerReservationInfo>(types);
  expectRecord<LocalServerReservationInfo>(types);
  expectWords<ExportFlag>(types);
  expectWords<ExportState>(types);
  expectWords<ExportReason>(types);
  expectWords<ImportFlag>(types);
  expectWords<ImportState>(types);
  expectWords<ImportDisableReason>(types);
  expectWords<ServerCapability>(types);
  EXPECT_TRUE(types.empty()) << types.begin()->first << " is defined and never sent";
}

template <class... Arguments>
std::string signatureText(const Method<Arguments...>& method) {
  using Row = Method<Arguments...>;
  std::vector<std::string> inputs;
  [&]<std::size_t... index>(std::index_sequence<index...>) {
    (inputs.push_back(fieldText<std::tuple_element_t<index, typename Row::Inputs>>(
         method.inputs[index].name, method.inputs[index].presence)),
     ...);
  }(std::make_index_sequence<Row::inputCount>());
  std::string output;
  if constexpr (!std::is_void_v<typename Row::Output>) {
    output = fieldText<typename Row::Output>(method.output, Presence::required);
  }
  return "(" + joined(inputs) + ")->(" + output + ")";
}

TEST(DefinitionTest, HoldsTheMethodsThatAreDispatchedAndNoOthers) {
  const Definition definition(nbdDefinition());
  std::map<std::string, std::string> methods;
  std::vector<std::string> order;
  std::apply(
      [&](const auto&... method) {
        (methods.emplace(method.name, signatureText(method)), ...);
        (order.emplace_back(method.name), ...);
      },
      Methods::all);
  EXPECT_EQ(definition.methods, methods);
  EXPECT_EQ(definition.methodOrder, order);
}

// Each row of the table calls the operation of its own name, and no other.
TEST(DefinitionTest, EveryMethodCallsTheOperationOfItsName) {
  Testing::FakeService service;
  Dispatcher dispatcher(service, {});
  const auto expectCall = [&]<class... Arguments>(const Method<Arguments...>& method) {
    using Row = Method<Arguments...>;
    const typename Row::Inputs inputs{};
    JsonWriter writer;
    writer.beginObject();
    encodeMember(writer, "method", std::string(interfaceName) + "." + std::string(method.name));
    writer.key("parameters");
    writer.beginObject();
    std::apply(
        [&](const auto&... input) {
          auto name = method.inputs.begin();
          (encodeMember(writer, (name++)->name, input), ...);
        },
        inputs);
    writer.endObject();
    writer.endObject();
    service.calls.clear();
    dispatcher.dispatch(writer.take(), [&](const Outcome& outcome) {
      EXPECT_TRUE(outcome.reply.starts_with("{\"parameters\":{")) << outcome.reply;
    });
    std::string operation(method.name);
    operation[0] = static_cast<char>(std::tolower(operation[0]));
    ASSERT_EQ(service.calls.size(), 1U);
    EXPECT_EQ(service.calls[0].substr(0, service.calls[0].find(' ')), operation);
  };
  std::apply([&](const auto&... method) { (expectCall(method), ...); }, Methods::all);
}

TEST(DefinitionTest, HoldsTheError) {
  EXPECT_EQ(Definition(nbdDefinition()).errors,
            (std::map<std::string, std::string>{{"Failed", "code:int,message:string"}}));
}

TEST(DefinitionTest, ServiceDefinitionHoldsVarlinksErrors) {
  const Definition definition(varlinkServiceDefinition());
  EXPECT_EQ(definition.methods.at("GetInterfaceDescription"), "(interface:string)->(description:string)");
  EXPECT_EQ(definition.methods.size(), 2U);
  EXPECT_EQ(definition.errors,
            (std::map<std::string, std::string>{{"InterfaceNotFound", "interface:string"},
                                                {"MethodNotFound", "method:string"},
                                                {"MethodNotImplemented", "method:string"},
                                                {"InvalidParameter", "parameter:string"}}));
}

}  // namespace
}  // namespace Control
