#include "tests/support/scripted_platform.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ostream>
#include <utility>

#include "host/runtime/address_text.h"
#include "host/runtime/path_text.h"
#include "platform/binary.h"
#include "platform/commandline.h"
#include "platform/error.h"
#include "platform/filesystem.h"
#include "platform/init_code.h"
#include "platform/memory.h"
#include "platform/process.h"
#include "platform/program.h"
#include "platform/string_util.h"
#include "shell/command_table.h"
#include "shell/output.h"
#include "shell/tear_down.h"
#include "tests/support/scripted_service.h"

namespace Support {

namespace {

Platform* theCurrent = nullptr;

/// Prints into the journal.
class JournalPrinter final : public CharPrinter {
 public:
  JournalPrinter() { ++Platform::current().printers; }
  JournalPrinter(const JournalPrinter&) = delete;
  JournalPrinter& operator=(const JournalPrinter&) = delete;
  ~JournalPrinter() override {
    if (--Platform::current().printers == 0 && Platform::current().isTracing()) {
      Platform::current().record("last printer released");
    }
  }

 private:
  void write(std::string_view bytes) override { Platform::current().journal += bytes; }
};

std::string word(const Ref<String>& string) { return string ? std::string(string->view()) : "none"; }

}  // namespace

Answer succeeding(std::string journal) { return {Shell::succeeded, std::move(journal)}; }

Answer failing(std::string journal) { return {Shell::failed, std::move(journal)}; }

std::ostream& operator<<(std::ostream& stream, const Answer& answer) {
  return stream << "result " << answer.result << ", journal:\n" << answer.journal;
}

Platform::Platform() {
  EXPECT_EQ(theCurrent, nullptr) << "there is one platform at a time";
  theCurrent = this;
}

Platform::~Platform() {
  EXPECT_EQ(lockDepth, 0) << "the initialisation lock was not given back";
  EXPECT_EQ(heapBlocks, 0U) << "memory was not given back";
  EXPECT_EQ(printers, 0U) << "a printer was not released";
  theCurrent = nullptr;
}

Platform& Platform::current() { return *theCurrent; }

Answer Platform::run(std::string_view line) {
  Shell::registerOutputRelease();
  Shell::buildCommandTable();
  Shell::setOutput(Libraries::Commandline::outPrinter());
  const auto words = StringUtil::split(text(line), ' ', 0, true, '\\', '"');
  const auto* const entry = Shell::findCommand(words->at(0));
  Answer answer{-1, {}};
  if (entry == nullptr || entry->handler == nullptr) {
    ADD_FAILURE() << line << " is no command with a handler";
  } else {
    const auto service = makeRef<ScriptedService>(*this);
    answer.result = entry->handler(service, std::vector<Ref<String>>(words->begin() + 1, words->end()));
  }
  // Released before the tear-down, the service would say so.
  answer.journal = takeJournal();
  Shell::runTearDown();
  journal.clear();
  return answer;
}

std::string Platform::runSession(std::vector<std::string> lines) {
  typed = std::move(lines);
  EXPECT_EQ(programEntry(reasonStart), 0);
  EXPECT_EQ(programEntry(reasonTearDown), 0);
  return takeJournal();
}

std::string Platform::runOnce(std::vector<std::string> words) {
  arguments = std::move(words);
  return runSession({});
}

void Platform::record(std::string_view call) { journal.append("{").append(call).append("}"); }

bool Platform::fails(const std::string& operation) {
  const auto failure = failures_.find(operation);
  if (failure == failures_.end()) {
    return false;
  }
  setError(failure->second);
  return true;
}

bool Platform::takeHeapBlock() {
  if (heapLeft_) {
    if (*heapLeft_ == 0) {
      return false;
    }
    --*heapLeft_;
  }
  ++heapBlocks;
  return true;
}

std::string Platform::takeJournal() { return std::exchange(journal, {}); }

Services::Network::Definitions::IPEndpoint endpoint(std::string_view address, std::uint16_t port) {
  return {Host::parseAddress(address), port};
}

Ref<String> text(std::string_view bytes) { return String::create(bytes); }

}  // namespace Support

using Support::Platform;
using Support::word;

namespace Error {

std::uint32_t get() {
  Platform::current().record("Error::get");
  return Platform::current().error();
}

}  // namespace Error

namespace Proc {

void setExitCode(unsigned int code) {
  const auto hexadecimal = StringPrinter::create();
  hexadecimal->hex()->printU32(code);
  Platform::current().record("setExitCode 0x" + word(hexadecimal->text()));
}

// Held up, so that tests see what comes after it.
void raiseFault() noexcept { Platform::current().record("raiseFault"); }

}  // namespace Proc

namespace Heap {

void* alloc(std::size_t size) noexcept {
  return Platform::current().takeHeapBlock() ? std::malloc(size)
                                             : nullptr;  // NOLINT(cppcoreguidelines-owning-memory)
}

void free(void* memory) noexcept {
  Platform& platform = Platform::current();
  --platform.heapBlocks;
  if (platform.isTracing()) {
    platform.record("free");
  }
  std::free(memory);  // NOLINT(cppcoreguidelines-owning-memory)
}

}  // namespace Heap

namespace InitCode {

void lock() {
  Platform& platform = Platform::current();
  ++platform.lockDepth;
  if (platform.isTracing()) {
    platform.record("lock");
  }
}

void unlock() {
  Platform& platform = Platform::current();
  EXPECT_GT(platform.lockDepth, 0) << "the initialisation lock was given back without being held";
  --platform.lockDepth;
  if (platform.isTracing()) {
    platform.record("unlock");
  }
}

}  // namespace InitCode

namespace Binary {

std::uint32_t argCount() { return static_cast<std::uint32_t>(Platform::current().arguments.size() + 1); }

Ref<String> arg(std::uint32_t index) {
  const auto& arguments = Platform::current().arguments;
  return index == 0                  ? Support::text("nbdctl")
         : index <= arguments.size() ? Support::text(arguments[index - 1])
                                     : nullptr;
}

}  // namespace Binary

namespace Libraries::Commandline {

bool initCommandline(std::uint32_t flags, Ref<Interfaces::Stream> stream, Ref<Terminal> terminal,
                     StreamCallback streamCallback, StringCallback stringCallback, void* context) {
  Platform::current().record("initCommandline");
  EXPECT_EQ(flags, 0U);
  EXPECT_FALSE(stream);
  EXPECT_FALSE(terminal);
  EXPECT_EQ(streamCallback, nullptr);
  EXPECT_EQ(stringCallback, nullptr);
  EXPECT_EQ(context, nullptr);
  return !Platform::current().fails("initCommandline");
}

Ref<CharPrinter> outPrinter() { return makeRef<Support::JournalPrinter>(); }

Ref<TextDisplay> display() { return makeRef<TextDisplay>(); }

Ref<KeyInput> keyInput() { return makeRef<KeyInput>(); }

Ref<String> readLine(Ref<String> initial, Ref<TextDisplay> display, Ref<KeyInput> keyInput) {
  EXPECT_FALSE(initial);
  EXPECT_TRUE(display);
  EXPECT_TRUE(keyInput);
  Platform& platform = Platform::current();
  if (platform.typed.empty()) {
    platform.record("end of input");
    return nullptr;
  }
  const auto line = Support::text(platform.typed.front());
  platform.typed.erase(platform.typed.begin());
  platform.record("typed: " + word(line));
  return line;
}

}  // namespace Libraries::Commandline

namespace Services::Network::Definitions {

IPAddress IPAddress::parse(const Ref<String>& text) {
  Platform::current().record("IPAddress::parse " + word(text));
  return text ? Host::parseAddress(text->view()) : IPAddress();
}

}  // namespace Services::Network::Definitions

namespace Services::Filesystem::Client {

Ref<String> Service::absolute(Ref<String> path, Ref<String> base) {
  Platform::current().record("absolute " + word(path) + " " + word(base));
  return Support::text(Host::resolvePath(path->view(), Platform::current().script.directory));
}

}  // namespace Services::Filesystem::Client

namespace Services::NBD::Client {

Ref<Service> Service::create(unsigned int timeoutMilliseconds) {
  Platform& platform = Platform::current();
  platform.record("create " + std::to_string(timeoutMilliseconds));
  if (platform.fails("create")) {
    return nullptr;
  }
  return makeRef<Support::ScriptedService>(platform);
}

}  // namespace Services::NBD::Client
