#include "shell/addresses.h"

#include <algorithm>
#include <utility>

namespace Shell {

namespace {

constexpr std::size_t groupCount = 8;
constexpr std::size_t lastGroup = groupCount - 1;
constexpr std::uint16_t mappedMark = 0xFFFF;

/// Prints `number` as dotted bytes, the highest first.
void printDotted(std::uint32_t number, const Ref<CharPrinter>& printer) {
  const auto byte = [number](unsigned int index) { return static_cast<std::uint8_t>(number >> (8 * index)); };
  printIPv4(byte(0), byte(1), byte(2), byte(3), printer);
}

bool isIPv4Mapped(const IPAddress& address) {
  return std::all_of(address.groups.begin(), address.groups.begin() + 5,
                     [](auto group) { return group == 0; }) &&
         address.groups[5] == mappedMark;
}

/// Prints one group as the `index`th, with upper-case digits and no leading zeros.
void printGroup(std::size_t index, std::uint16_t group, const Ref<CharPrinter>& printer) {
  if (index > 0) {
    printer->printChar(':');
  }
  unsigned int shift = 12;
  while (shift > 0 && group >> shift == 0) {
    shift -= 4;
  }
  for (;; shift -= 4) {
    printer->printChar("0123456789ABCDEF"[group >> shift & 0xF]);
    if (shift == 0) {
      return;
    }
  }
}

/// What has become of the one run of zero groups that is left out.
enum class Run { none, inside, finished };

void printGroups(const IPAddress& address, const Ref<CharPrinter>& printer) {
  Run run = Run::none;
  for (std::size_t i = 0; i < groupCount; ++i) {
    const std::uint16_t group = address.groups.at(i);
    if (group == 0 && run == Run::inside) {
      if (i == lastGroup) {
        printer->printChar(':');
      }
      continue;
    }
    if (group == 0 && run == Run::none) {
      const auto next = i < lastGroup ? address.groups.at(i + 1) : static_cast<std::uint16_t>(address.scope);
      if (next == 0) {
        printer->printChar(':');
        run = Run::inside;
        continue;
      }
    }
    if (run == Run::inside) {
      run = Run::finished;
    }
    printGroup(i, group, printer);
  }
}

}  // namespace

Ref<CharPrinter> printIPv4(std::uint8_t byte0, std::uint8_t byte1, std::uint8_t byte2, std::uint8_t byte3,
                           Ref<CharPrinter> printer) {
  printer->printU32(byte3)->printText(".")->printU32(byte2)->printText(".");
  return printer->printU32(byte1)->printText(".")->printU32(byte0);
}

Ref<CharPrinter> printIPAddress(const IPAddress& address, Ref<CharPrinter> printer) {
  if (address.family == IPAddress::familyIPv4) {
    printDotted(address.pair(0), printer);
    return printer;
  }
  if (isIPv4Mapped(address)) {
    printer->printText("::FFFF:");
    printDotted(address.pair(6), printer);
  } else {
    printGroups(address, printer);
  }
  if (address.scope != 0) {
    printer->printText("%")->printU32(address.scope);
  }
  return printer;
}

Ref<String> formatAddress(const IPAddress& address) {
  const auto printer = StringPrinter::create();
  printIPAddress(address, printer);
  return printer->text();
}

Ref<String> formatEndpoint(const IPEndpoint& endpoint) {
  const auto printer = StringPrinter::create();
  if (endpoint.address.family == IPAddress::familyIPv4) {
    printIPAddress(endpoint.address, printer);
  } else {
    printer->printText("[");
    printIPAddress(endpoint.address, printer);
    printer->printText("]");
  }
  printer->printText(":")->printU16(endpoint.port);
  return printer->text();
}

}  // namespace Shell
