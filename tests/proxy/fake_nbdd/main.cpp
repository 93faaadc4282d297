// Stands for nbdd in the tests of how it is started. What it does is said by FAKE_NBDD:
//
//   serve    serves NBDD_RUNTIME_DIR with a fake service until it is asked to stop (ServerStop); a second
//            one that finds the directory locked ends with status 3
//   fail     says a sentence and ends
//   hang     never becomes ready
//   locked   says so and ends with status 3 although nobody serves
//   stuck    locked the first time; later says the same and never ends

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <span>
#include <string>
#include <string_view>

#include "nbdd/control/control_server.h"
#include "nbdd/control/listening_socket.h"
#include "nbdd/io/scope.h"
#include "tests/control/fake_service.h"

namespace {

Nbdd::Io::Task<void> stop(Nbdd::Io::EventLoop& loop, Nbdd::ControlServer& server) {
  auto stopped = server.stop();
  co_await stopped;
  loop.stop();
}

int serve(const std::string& directory, int ready) {
  const int lock = ::open((directory + "/lock").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
  if (::flock(lock, LOCK_EX | LOCK_NB) != 0) {
    std::fputs("fake nbdd: another one runs\n", stderr);
    return 3;
  }
  std::ofstream(directory + "/started", std::ios::app)
      << ::getpid() << ' ' << ::getppid() << ' ' << ::getsid(0) << '\n';
  auto listener = Nbdd::listenOnControlSocket(directory + "/org.talvek.NBD", {});
  if (!listener) return 1;
  Nbdd::Io::EventLoop loop;
  Control::Testing::FakeService service;
  Nbdd::ControlServer server(loop, service, {}, std::move(*listener), {.owner = ::geteuid(), .group = {}});
  if (::write(ready, "", 1) != 1) return 1;
  ::close(ready);
  Nbdd::Io::Scope scope;
  service.stopped = [&] { scope.spawn(stop(loop, server)); };
  loop.run();
  return 0;
}

}  // namespace

int main(int count, char** words) {
  const std::span<char*> arguments(words, static_cast<std::size_t>(count));
  if (count != 4 || std::string_view(arguments[1]) != "--on-demand" ||
      std::string_view(arguments[2]) != "--ready-fd") {
    std::fputs("fake nbdd: unexpected arguments\n", stderr);
    return 2;
  }
  const std::string_view mode = std::getenv("FAKE_NBDD");
  const std::string directory = std::getenv("NBDD_RUNTIME_DIR");
  ::alarm(60);  // whatever happens to the test, this does not stay
  if (mode == "serve") return serve(directory, std::atoi(arguments[3]));
  if (mode == "hang") ::pause();
  if (mode == "locked" || mode == "stuck") {
    std::fputs("fake nbdd: another one runs\n", stderr);
    const std::string mark = directory + "/stuck";
    if (mode == "stuck" && ::mkdir(mark.c_str(), 0700) != 0) ::pause();
    return 3;
  }
  std::fputs("fake nbdd: the port is taken: choose another one\n", stderr);
  return 1;
}
