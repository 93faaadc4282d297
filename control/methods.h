#pragma once

#include <array>
#include <cstddef>
#include <string_view>
#include <tuple>

#include "control/fields.h"
#include "control/interface.h"

/// The methods of org.talvek.NBD: one row for each operation of Control::Service, from which the dispatcher,
/// the client and the check of the definition follow. Types come from the operation; the row adds what the
/// parameters are called.
namespace Control {

inline constexpr std::string_view interfaceName = "org.talvek.NBD";

/// An input of a method. An omitted optional or defaulted one stands for its default.
struct Parameter {
  std::string_view name;
  Presence presence = Presence::required;
};

namespace Detail {

template <class T>
struct AnswerTraits;
template <class T>
struct AnswerTraits<Answer<T>> {
  using Output = T;
};

// An operation's arguments, of which the last is the answer, split into what goes in and what comes out.
template <class Indices, class... Arguments>
struct Split;
template <std::size_t... indices, class... Arguments>
struct Split<std::index_sequence<indices...>, Arguments...> {
  using All = std::tuple<Arguments...>;
  using Inputs = std::tuple<std::tuple_element_t<indices, All>...>;
  using Output = typename AnswerTraits<std::tuple_element_t<sizeof...(Arguments) - 1, All>>::Output;
};

}  // namespace Detail

template <class... Arguments>
struct Method {
  using Split = Detail::Split<std::make_index_sequence<sizeof...(Arguments) - 1>, Arguments...>;
  using Inputs = typename Split::Inputs;  ///< a tuple of the operation's arguments before the answer
  using Output = typename Split::Output;  ///< void when there is nothing to tell
  static constexpr std::size_t inputCount = sizeof...(Arguments) - 1;

  constexpr Method(std::string_view methodName, void (Service::*method)(Arguments...),
                   std::array<Parameter, inputCount> inputNames = {}, std::string_view outputName = {})
      : name(methodName), operation(method), inputs(inputNames), output(outputName) {}

  std::string_view name;
  void (Service::*operation)(Arguments...);
  std::array<Parameter, inputCount> inputs;
  std::string_view output;  ///< what the one output parameter is called; empty without one
};

namespace Methods {

namespace Detail {

using None = std::array<Parameter, 0>;
inline constexpr std::array byId{Parameter{"id"}};
inline constexpr std::array byIdWithForce{Parameter{"id"}, Parameter{"force", Presence::defaulted}};

}  // namespace Detail

inline constexpr Method serverStart{"ServerStart", &Service::serverStart, Detail::None{}, "endpoints"};
inline constexpr Method serverStop{"ServerStop", &Service::serverStop};
inline constexpr Method serverCapabilities{"ServerCapabilities", &Service::serverCapabilities, Detail::None{},
                                           "capabilities"};
inline constexpr Method serverGetNamedProperties{
    "ServerGetNamedProperties", &Service::serverGetNamedProperties, Detail::None{}, "properties"};
inline constexpr Method serverDiscover{"ServerDiscover", &Service::serverDiscover, Detail::None{}, "servers"};
inline constexpr Method serverEnableReservation{"ServerEnableReservation", &Service::serverEnableReservation,
                                                std::array{Parameter{"password"}}};
inline constexpr Method serverGetReservation{"ServerGetReservation", &Service::serverGetReservation,
                                             Detail::None{}, "reservation"};
inline constexpr Method serverReserveRemote{"ServerReserveRemote", &Service::serverReserveRemote,
                                            std::array{Parameter{"request"}}};
inline constexpr Method serverUnreserveRemote{"ServerUnreserveRemote", &Service::serverUnreserveRemote,
                                              std::array{Parameter{"endpoint"}}};
inline constexpr Method serverListRemoteReservations{
    "ServerListRemoteReservations", &Service::serverListRemoteReservations, Detail::None{}, "reservations"};

inline constexpr Method exportList{"ExportList", &Service::exportList, Detail::None{}, "ids"};
inline constexpr Method exportInfo{"ExportInfo", &Service::exportInfo, Detail::byId, "info"};
inline constexpr Method exportGetClients{"ExportGetClients", &Service::exportGetClients, Detail::byId,
                                         "clients"};
inline constexpr Method exportGetStatistics{"ExportGetStatistics", &Service::exportGetStatistics,
                                            Detail::byId, "statistics"};
inline constexpr Method exportAdd{"ExportAdd", &Service::exportAdd, std::array{Parameter{"descriptor"}},
                                  "id"};
inline constexpr Method exportEnable{"ExportEnable", &Service::exportEnable, Detail::byId};
inline constexpr Method exportDisable{"ExportDisable", &Service::exportDisable, Detail::byIdWithForce};
inline constexpr Method exportRemove{"ExportRemove", &Service::exportRemove, Detail::byId};

inline constexpr Method importList{"ImportList", &Service::importList, Detail::None{}, "ids"};
inline constexpr Method importInfo{"ImportInfo", &Service::importInfo, Detail::byId, "info"};
inline constexpr Method importAdd{"ImportAdd", &Service::importAdd, std::array{Parameter{"descriptor"}},
                                  "id"};
inline constexpr Method importEnable{"ImportEnable", &Service::importEnable, Detail::byId};
inline constexpr Method importDisable{"ImportDisable", &Service::importDisable, Detail::byIdWithForce};
inline constexpr Method importRemove{"ImportRemove", &Service::importRemove, Detail::byId};
inline constexpr Method importListNodeInterfaces{
    "ImportListNodeInterfaces", &Service::importListNodeInterfaces, Detail::byId, "interfaces"};
inline constexpr Method importEnableTransferCompression{"ImportEnableTransferCompression",
                                                        &Service::importEnableTransferCompression,
                                                        std::array{Parameter{"enable"}}};

inline constexpr Method fetchRemoteExports{"FetchRemoteExports", &Service::fetchRemoteExports,
                                           std::array{Parameter{"endpoint"}, Parameter{"expression"}},
                                           "list"};

/// Every method, in the order of the definition.
inline constexpr std::tuple all{
    serverStart,
    serverStop,
    serverCapabilities,
    serverGetNamedProperties,
    serverDiscover,
    serverEnableReservation,
    serverGetReservation,
    serverReserveRemote,
    serverUnreserveRemote,
    serverListRemoteReservations,
    exportList,
    exportInfo,
    exportGetClients,
    exportGetStatistics,
    exportAdd,
    exportEnable,
    exportDisable,
    exportRemove,
    importList,
    importInfo,
    importAdd,
    importEnable,
    importDisable,
    importRemove,
    importListNodeInterfaces,
    importEnableTransferCompression,
    fetchRemoteExports,
};

}  // namespace Methods

}  // namespace Control
