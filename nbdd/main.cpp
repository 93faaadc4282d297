#include <iostream>
#include <variant>

#include "nbdd/service/application.h"
#include "nbdd/service/options.h"

int main(int count, char** words) {
  const auto parsed = Nbdd::parseOptions(count, words, std::cout, std::cerr);
  if (const auto* const done = std::get_if<Nbdd::ExitCode>(&parsed)) return static_cast<int>(*done);
  return static_cast<int>(Nbdd::runApplication(std::get<Nbdd::Options>(parsed)));
}
