#include <iostream>
#include <variant>

#include "nbdd/discovery/responder.h"
#include "nbdd/service/application.h"
#include "nbdd/service/options.h"

int main(int count, char** words) {
  const auto parsed = Nbdd::parseOptions(count, words, std::cout, std::cerr);
  if (const auto* const done = std::get_if<Nbdd::ExitCode>(&parsed)) return static_cast<int>(*done);
  const auto& options = std::get<Nbdd::Options>(parsed);
  if (options.responderDescriptor) {
    return static_cast<int>(Nbdd::Discovery::runResponder(*options.responderDescriptor));
  }
  return static_cast<int>(Nbdd::runApplication(options));
}
