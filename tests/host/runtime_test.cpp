// Objects, text and printers.

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "host/error.h"
#include "platform/char_printer.h"
#include "platform/error.h"
#include "platform/init_code.h"
#include "platform/memory.h"
#include "platform/object.h"
#include "platform/process.h"
#include "platform/set.h"
#include "platform/string.h"
#include "platform/variant.h"
#include "platform/vector.h"

namespace {

/// Says when it goes.
class Witness : public Object {
 public:
  explicit Witness(bool& gone) : gone_(gone) {}
  Witness(const Witness&) = delete;
  Witness& operator=(const Witness&) = delete;
  ~Witness() override { gone_ = true; }

 private:
  bool& gone_;
};

class DerivedWitness final : public Witness {
  using Witness::Witness;
};

std::string printed(const Ref<StringPrinter>& printer) { return std::string(printer->text()->view()); }

}  // namespace

TEST(Ref, KeepsTheObjectUntilTheLastHolderLetsGo) {
  bool gone = false;
  auto first = makeRef<Witness>(gone);
  auto second = first;
  first = nullptr;
  EXPECT_FALSE(gone);
  EXPECT_TRUE(second);
  second = Ref<Witness>();
  EXPECT_TRUE(gone);
}

TEST(Ref, MovesItsHold) {
  bool gone = false;
  auto first = makeRef<DerivedWitness>(gone);
  const Ref<Witness> second = std::move(first);
  EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): that is what is tested
  EXPECT_FALSE(gone);
}

TEST(Ref, SurvivesAssignmentToItself) {
  bool gone = false;
  auto ref = makeRef<Witness>(gone);
  const auto& same = ref;
  ref = same;
  EXPECT_FALSE(gone);
  EXPECT_TRUE(ref);
}

TEST(RefDeathTest, EndsTheProcessWhenNothingIsThere) {
  EXPECT_EXIT((void)Ref<String>()->view(), testing::KilledBySignal(SIGABRT), "^$");
  EXPECT_EXIT((void)TVector<int>::create()->at(0), testing::KilledBySignal(SIGABRT), "^$");
}

TEST(String, CopiesPartOfALiteral) {
  EXPECT_EQ(String::create("abcdef", 0, -1)->view(), "abcdef");
  EXPECT_EQ(String::create("abcdef", 2, -1)->view(), "cdef");
  EXPECT_EQ(String::create("abcdef", 2, 3)->view(), "cde");
  EXPECT_EQ(String::create("abcdef", 2, 99)->view(), "cdef");
  EXPECT_EQ(String::create("abcdef", 99, -1)->view(), "");
  EXPECT_EQ(String::create("abcdef", 1, 0)->view(), "");
  EXPECT_EQ(String::create()->view(), "");
}

TEST(String, ComparesBytes) {
  const auto force = String::create("force", 0, -1);
  EXPECT_TRUE(force->equals("force"));
  EXPECT_TRUE(force->equals(String::create("force", 0, -1)));
  EXPECT_FALSE(force->equals("Force"));
  EXPECT_FALSE(force->equals("forc"));
  EXPECT_FALSE(force->equals(Ref<String>()));
  EXPECT_FALSE(String::create()->equals(Ref<String>())) << "empty text is not the same as none";
  EXPECT_TRUE(String::create()->isEmpty());
}

TEST(String, IsItselfAsText) {
  const auto string = String::create("a", 0, -1);
  EXPECT_EQ(string->toString().get(), string.get());
}

TEST(CharPrinter, PrintsEachKind) {
  const auto printer = StringPrinter::create();
  printer->printText("a\n\tb ")
      ->printString(String::create("c", 0, -1))
      ->printString(nullptr)
      ->printChar(' ')
      ->printU64(UINT64_MAX)
      ->printChar(' ')
      ->printU32(UINT32_MAX)
      ->printChar(' ')
      ->printU16(UINT16_MAX)
      ->printChar(' ')
      ->printBool(true)
      ->printBool(false)
      ->endLine();
  EXPECT_EQ(printed(printer), "a\n\tb c 18446744073709551615 4294967295 65535 truefalse\n");
}

TEST(CharPrinter, PrintsBytesThatAreNoText) {
  const auto printer = StringPrinter::create();
  const std::string bytes("\0\xFF\n", 3);
  printer->printString(String::create(std::string_view(bytes)));
  EXPECT_EQ(printed(printer), bytes);
}

TEST(CharPrinter, PrintsOneNumberInHexadecimal) {
  const auto printer = StringPrinter::create();
  printer->hex()->printU32(0xABCDEF)->printText(" ")->printU32(255)->printText(" ")->hex()->printU32(0);
  printer->printText(" ")->hex()->printU32(0xFFFFFFFF)->printText(" ")->hex()->printU64(0x123456789ABCDEF0);
  EXPECT_EQ(printed(printer), "ABCDEF 255 0 FFFFFFFF 123456789ABCDEF0");
}

TEST(CharPrinter, ForgetsHexadecimalIfNoNumberFollows) {
  const auto printer = StringPrinter::create();
  printer->hex()->printText("x")->printU32(255);
  EXPECT_EQ(printed(printer), "x255");
}

TEST(StringPrinter, GoesOnAfterItsText) {
  const auto printer = StringPrinter::create();
  EXPECT_EQ(printed(printer), "");
  printer->printText("a");
  const auto before = printer->text();
  printer->printText("b");
  EXPECT_EQ(before->view(), "a");
  EXPECT_EQ(printed(printer), "ab");
}

TEST(Set, HoldsEnumeratorsAsBits) {
  enum class Kind : unsigned int { first = 0, second = 1, last = 31 };
  using Kinds = Definitions::Set<Kind, unsigned int, Definitions::EnumSeqConvert<Kind, unsigned int>>;
  Kinds kinds;
  EXPECT_EQ(kinds.mask(), 0U);
  kinds.add(Kind::second);
  kinds.add(Kind::last);
  EXPECT_EQ(kinds.mask(), 0x80000002U);
  EXPECT_TRUE(kinds.contains(Kind::last));
  EXPECT_FALSE(kinds.contains(Kind::first));
  EXPECT_EQ(Kinds(0xFF00).mask(), 0xFF00U);
}

TEST(Variant, HasDefaultEntries) {
  using namespace Services::NBD::Client::Types;
  const Variant variant(1);
  ASSERT_EQ(variant.count(), 1U);
  const VariantEntry& entry = variant.entry(0);
  EXPECT_EQ(entry.type, VariantType::Empty);
  EXPECT_EQ(entry.number, 0U);
  EXPECT_FALSE(entry.text);
  EXPECT_FALSE(entry.binary);
  EXPECT_EQ(entry.nested.count(), 0U);
  ASSERT_TRUE(entry.name);
  EXPECT_TRUE(entry.name->isEmpty());
}

TEST(Variant, CopiesTheListAndSharesTheTexts) {
  using namespace Services::NBD::Client::Types;
  Variant original(2);
  original.entry(0).type = VariantType::Nested;
  original.entry(0).nested = Variant(1);
  original.entry(0).nested.entry(0).number = 7;
  original.entry(1).text = String::create("x", 0, -1);
  original.entry(1).binary = BinaryData::create({std::byte{1}, std::byte{2}});

  Variant copy = original;
  EXPECT_EQ(copy.count(), 2U);
  EXPECT_EQ(copy.capacity(), 2U);
  EXPECT_EQ(copy.entry(1).text.get(), original.entry(1).text.get());
  EXPECT_EQ(copy.entry(1).binary->length(), 2U);
  copy.entry(0).nested.entry(0).number = 8;
  EXPECT_EQ(original.entry(0).nested.entry(0).number, 7U);

  const Variant moved = std::move(copy);
  EXPECT_EQ(moved.count(), 2U);
  EXPECT_EQ(copy.count(), 0U);  // NOLINT(bugprone-use-after-move): that is what is tested
}

TEST(VariantDeathTest, EndsTheProcessBehindItsLastEntry) {
  const Services::NBD::Client::Types::Variant variant(1);
  EXPECT_EXIT((void)variant.entry(1), testing::KilledBySignal(SIGABRT), "^$");
}

TEST(FaultDeathTest, EndsTheProcessWithoutAWord) {
  EXPECT_EXIT(Proc::raiseFault(), testing::KilledBySignal(SIGABRT), "^$");
  EXPECT_EXIT(Proc::failFast(), testing::KilledBySignal(SIGABRT), "^$");
}

TEST(Fault, ComesBackWhereTheSignalIsHeldUp) {
  const auto before = std::signal(SIGABRT, SIG_IGN);
  Proc::raiseFault();
  std::signal(SIGABRT, before);
}

TEST(Error, KeepsTheLastCode) {
  Host::setError(0);
  EXPECT_EQ(Error::get(), 0U);
  Host::setError(0xFFFFFFFF);
  EXPECT_EQ(Error::get(), 0xFFFFFFFFU);
  EXPECT_EQ(Error::get(), 0xFFFFFFFFU);
}

TEST(Memory, IsGivenCopiedAndFilled) {
  auto* const memory = static_cast<char*>(Heap::alloc(4));
  ASSERT_NE(memory, nullptr);
  Mem::fill8(memory, 'x', 4);
  Mem::copy(memory + 1, "ab", 2);
  EXPECT_EQ(std::string(memory, 4), "xabx");
  Mem::copy(memory, nullptr, 0);
  Heap::free(memory);
  Heap::free(nullptr);
}

TEST(InitCode, CanBeLockedTwice) {
  InitCode::lock();
  InitCode::lock();
  InitCode::unlock();
  InitCode::unlock();
}
