#include "tests/support/service_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>
#include <utility>

#include "control/methods.h"

namespace Testing {

namespace {

using namespace std::chrono_literals;

// A build with sanitizers on a busy machine takes its time.
constexpr auto startTime = 30s;
constexpr auto stopTime = 30s;
constexpr int readyDescriptor = 9;

Ending endingFrom(int status) {
  if (WIFEXITED(status)) return {.exitCode = WEXITSTATUS(status), .signal = {}};
  return {.exitCode = {}, .signal = WTERMSIG(status)};
}

std::vector<char*> pointersTo(std::vector<std::string>& words) {
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  return pointers;
}

void redirect(const std::filesystem::path& file, int target) {
  const int number = ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  ::dup2(number, target);
}

}  // namespace

TemporaryDirectory::TemporaryDirectory() {
  std::string name = (std::filesystem::temp_directory_path() / "nbdd-test-XXXXXX").string();
  if (::mkdtemp(name.data()) == nullptr) throw std::runtime_error("cannot make a directory for the test");
  path_ = name;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::filesystem::path TemporaryDirectory::write(const std::string& name, const std::string& content) const {
  const std::filesystem::path file = path_ / name;
  std::ofstream(file, std::ios::binary) << content;
  return file;
}

std::filesystem::path TemporaryDirectory::sparse(const std::string& name, std::uintmax_t size) const {
  const std::filesystem::path file = write(name, "");
  std::filesystem::resize_file(file, size);
  return file;
}

std::string readText(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

ServiceProcess::ServiceProcess() {
  configure("[server]\nlisten = [\"127.0.0.1\", \"::1\"]\nport = 0\n");
  variables_["NBDD_RUNTIME_DIR"] = directory() / "runtime";
  variables_["NBDD_STATE_DIR"] = directory() / "state";
  variables_["NBDD_CONFIG"] = directory() / "nbdd.toml";
}

ServiceProcess::~ServiceProcess() {
  if (running()) kill9();
}

void ServiceProcess::configure(const std::string& toml) { directory_.write("nbdd.toml", toml); }

pid_t ServiceProcess::launch(int ready) const {
  std::vector<std::string> words{NBDD_PROGRAM};
  if (ready >= 0) words.insert(words.end(), {"--ready-fd", std::to_string(readyDescriptor)});
  words.insert(words.end(), arguments_.begin(), arguments_.end());
  const std::vector<char*> arguments = pointersTo(words);

  const pid_t process = ::fork();
  if (process < 0) throw std::runtime_error("cannot start a process");
  if (process > 0) return process;
  std::vector<std::string> assignments;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string text = *variable;
    if (!variables_.contains(text.substr(0, text.find('=')))) assignments.push_back(text);
  }
  for (const auto& [name, value] : variables_) {
    if (!value.empty()) assignments.push_back(name + "=" + value);
  }
  if (passedSocket_ >= 0) {
    assignments.push_back("LISTEN_PID=" + std::to_string(::getpid()));
    assignments.push_back("LISTEN_FDS=1");
  }
  const std::vector<char*> environment = pointersTo(assignments);
  redirect(directory() / "out", STDOUT_FILENO);
  redirect(directory() / "log", STDERR_FILENO);
  if (ready >= 0) ::dup2(ready, readyDescriptor);
  if (passedSocket_ >= 0) {
    constexpr int firstPassed = 3;
    ::dup2(passedSocket_, firstPassed);
    ::fcntl(firstPassed, F_SETFD, 0);  // it may have had this number already
  }
  ::execve(arguments[0], arguments.data(), environment.data());
  ::_exit(127);
}

void ServiceProcess::start() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("cannot make a pipe");
  process_ = launch(ends[1]);
  ::close(ends[1]);
  pollfd entry{.fd = ends[0], .events = POLLIN, .revents = 0};
  const int count = ::poll(&entry, 1, static_cast<int>(std::chrono::milliseconds(startTime).count()));
  char byte = 0;
  const bool ready = count > 0 && ::read(ends[0], &byte, 1) == 1;
  ::close(ends[0]);
  if (ready) return;
  kill9();
  throw std::runtime_error("nbdd did not become ready: " + log());
}

Ending ServiceProcess::runToEnd() {
  process_ = launch(-1);
  const std::optional<Ending> ending = awaitEnd(startTime);
  if (ending) return *ending;
  kill9();
  throw std::runtime_error("nbdd did not end: " + log());
}

void ServiceProcess::kill9() {
  signal(SIGKILL);
  ::waitpid(std::exchange(process_, -1), nullptr, 0);
}

Ending ServiceProcess::stop() {
  signal(SIGTERM);
  const std::optional<Ending> ending = awaitEnd(stopTime);
  if (ending) return *ending;
  kill9();
  throw std::runtime_error("nbdd did not end after SIGTERM: " + log());
}

void ServiceProcess::restart() {
  if (running()) stop();
  start();
}

void ServiceProcess::signal(int number) const {
  if (running()) ::kill(process_, number);
}

std::optional<Ending> ServiceProcess::awaitEnd(std::chrono::milliseconds time) {
  const auto deadline = std::chrono::steady_clock::now() + time;
  int status = 0;
  while (::waitpid(process_, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) return {};
    std::this_thread::sleep_for(2ms);
  }
  process_ = -1;
  return endingFrom(status);
}

std::filesystem::path ServiceProcess::controlSocket() const {
  return std::filesystem::path(variables_.at("NBDD_RUNTIME_DIR")) / "org.talvek.NBD";
}

std::filesystem::path ServiceProcess::stateFile() const {
  return std::filesystem::path(variables_.at("NBDD_STATE_DIR")) / "state.json";
}

std::string ServiceProcess::log() const { return readText(directory() / "log"); }

std::string ServiceProcess::output() const { return readText(directory() / "out"); }

Control::Client ServiceProcess::connect() const {
  auto client = Control::Client::connect(controlSocket(), std::chrono::steady_clock::now() + 10s);
  if (!client) throw std::runtime_error("cannot connect to nbdd: " + client.error().message);
  return std::move(*client);
}

std::uint16_t ServiceProcess::port() const {
  Control::Client client = connect();
  const auto properties = client.call(Control::Methods::serverGetNamedProperties);
  if (!properties)
    throw std::runtime_error("cannot ask nbdd for its properties: " + properties.error().message);
  for (const Control::VariantEntry& entry : *properties) {
    const auto* const number = std::get_if<std::uint64_t>(&entry.value);
    if (entry.name == "port" && number != nullptr) return static_cast<std::uint16_t>(*number);
  }
  return 0;
}

}  // namespace Testing
