#include "nbdd/state/saved_state.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <chrono>
#include <string>

#include "nbdd/exports/identity.h"

namespace Nbdd {
namespace {

SavedState sample() {
  SavedState state;
  state.serverUuid = "9e31b2fa-b115-47e9-8c62-81e89028abf0";
  state.serverStarted = true;
  state.nextExportId = 12;
  state.exports = {
      {Control::ExportId{3},
       "disk",
       "/srv/disk",
       {},
       "bf0e12e3-d13d-4b99-b104-d3653ccfa45a",
       2,
       512,
       Wanted::enabled},
      {Control::ExportId{11},
       "gr\"ö\\ße",
       "/srv/a\nb",
       {Control::ExportFlag::readOnly},
       "00000000-0000-4000-8000-000000000000",
       0,
       1,
       Wanted::disabled},
  };
  return state;
}

SavedState sampleWithImports() {
  SavedState state = sample();
  state.nextImportId = 6;
  state.imports = {
      {.id = Control::ImportId{2}, .name = "", .server = {.address = "192.0.2.7"}, .wanted = Wanted::enabled},
      {.id = Control::ImportId{5},
       .name = "gr\"ö\\ße",
       .server = {.address = "nas.example", .port = 65535},
       .flags = {Control::ImportFlag::dontAnnounceStorage, Control::ImportFlag::forceReadOnly},
       .wanted = Wanted::added},
  };
  return state;
}

/// The sample's text with the first `before` replaced by `after`.
std::string changed(const std::string& before, const std::string& after) {
  std::string text = printState(sample());
  const std::size_t at = text.find(before);
  EXPECT_NE(at, std::string::npos) << before;
  return text.replace(at, before.size(), after);
}

TEST(SavedState, WhatIsPrintedIsRead) {
  EXPECT_EQ(parseState(printState(sample())).value(), sample());
  SavedState empty;
  empty.serverUuid = sample().serverUuid;
  EXPECT_EQ(parseState(printState(empty)).value(), empty);
}

TEST(SavedState, TheTextStaysReadableByLaterVersions) {
  EXPECT_EQ(printState(sample()),
            R"({"format":"org.talvek.NBD.state","version":1,
"server":{"uuid":"9e31b2fa-b115-47e9-8c62-81e89028abf0","started":true},
"nextExportId":12,
"exports":[
{"id":3,"name":"disk","node":"/srv/disk","readOnly":false,"uuid":"bf0e12e3-d13d-4b99-b104-d3653ccfa45a","elemCount":2,"elemSize":512,"wanted":"enabled"},
{"id":11,"name":"gr\"ö\\ße","node":"/srv/a\nb","readOnly":true,"uuid":"00000000-0000-4000-8000-000000000000","elemCount":0,"elemSize":1,"wanted":"disabled"}
]}
)");
}

TEST(SavedState, ImportsAreReadAndWrittenInTheSecondVersion) {
  EXPECT_EQ(parseState(printState(sampleWithImports())).value(), sampleWithImports());
  const std::string text = printState(sampleWithImports());
  EXPECT_NE(text.find("\"version\":2,"), std::string::npos);
  EXPECT_TRUE(text.ends_with(R"(
],
"nextImportId":6,
"imports":[
{"id":2,"name":"","address":"192.0.2.7","port":0,"dontAnnounce":false,"readOnly":false,"wanted":"enabled"},
{"id":5,"name":"gr\"ö\\ße","address":"nas.example","port":65535,"dontAnnounce":true,"readOnly":true,"wanted":"added"}
]}
)")) << text;
  // Removed imports leave their numbers behind.
  SavedState removed = sample();
  removed.nextImportId = 6;
  EXPECT_EQ(parseState(printState(removed)).value(), removed);
}

TEST(SavedState, CompressionIsReadAndWrittenInTheThirdVersion) {
  for (SavedState state : {sample(), sampleWithImports()}) {
    state.transferCompression = true;
    const std::string text = printState(state);
    EXPECT_NE(text.find("\"version\":3,"), std::string::npos);
    EXPECT_EQ(parseState(text).value(), state);
    for (const auto& [before, after] : std::vector<std::pair<std::string, std::string>>{
             {"\"version\":3", "\"version\":2"},
             {"\"transferCompression\":true", "\"transferCompression\":false"},
             {"\"transferCompression\":true", "\"transferCompression\":1"},
             {",\"transferCompression\":true", ""}}) {
      std::string other = text;
      other.replace(other.find(before), before.size(), after);
      EXPECT_FALSE(parseState(other).has_value()) << before << " -> " << after;
    }
  }
}

TEST(SavedState, NoImportThatDoesNotFitIsTaken) {
  const std::string whole = printState(sampleWithImports());
  const std::vector<std::pair<std::string, std::string>> changes{
      {"\"version\":2", "\"version\":1"},
      {"\"nextImportId\":6", "\"nextImportId\":5"},
      {"\"nextImportId\":6", "\"nextImportId\":\"6\""},
      {"\"id\":2,\"name\":\"\"", "\"id\":5,\"name\":\"\""},
      {"\"id\":2,\"name\":\"\"", "\"id\":0,\"name\":\"\""},
      {"\"address\":\"192.0.2.7\"", "\"address\":\"\""},
      {"\"address\":\"192.0.2.7\"", "\"address\":7"},
      {"\"port\":0", "\"port\":65536"},
      {"\"port\":0", "\"port\":-1"},
      {"\"port\":0,", ""},
      {"\"dontAnnounce\":false", "\"dontAnnounce\":null"},
      {"\"dontAnnounce\":false", "\"dontAnnounce\":false,\"more\":1"},
      {"\"imports\":[", "\"imports\":[1,"},
      {"\"imports\":[", "\"others\":[],\"imports\":["},
  };
  for (const auto& [before, after] : changes) {
    std::string text = whole;
    const std::size_t at = text.rfind(before);
    ASSERT_NE(at, std::string::npos) << before;
    EXPECT_FALSE(parseState(text.replace(at, before.size(), after)).has_value()) << before << " -> " << after;
  }
  for (std::size_t length = 0; length + 1 < whole.size(); ++length) {
    EXPECT_FALSE(parseState(whole.substr(0, length)).has_value()) << length;
  }
}

TEST(SavedState, EveryTornTextIsRefused) {
  const std::string whole = printState(sample());
  // All but the line end at its end belongs to the text.
  for (std::size_t length = 0; length + 1 < whole.size(); ++length) {
    EXPECT_FALSE(parseState(whole.substr(0, length)).has_value()) << length;
  }
}

TEST(SavedState, ANewerVersionIsToldFromDamage) {
  const auto newer = parseState(changed("\"version\":1", "\"version\":4"));
  ASSERT_FALSE(newer.has_value());
  EXPECT_NE(newer.error().find("newer"), std::string::npos);
  const auto damaged = parseState(changed("\"version\":1", "\"version\":\"1\""));
  ASSERT_FALSE(damaged.has_value());
  EXPECT_EQ(damaged.error().find("newer"), std::string::npos);
}

TEST(SavedState, NothingThatDoesNotFitIsTaken) {
  const std::vector<std::pair<std::string, std::string>> changes{
      {"org.talvek.NBD.state", "other"},
      {"\"version\":1", "\"version\":0"},
      {"\"version\":1", "\"version\":1,\"extra\":1"},
      {"\"started\":true", "\"started\":1"},
      {"\"started\":true", "\"started\":true,\"x\":0"},
      {"9e31b2fa-", "9e31b2fa"},
      {"\"nextExportId\":12", "\"nextExportId\":11"},
      {"\"nextExportId\":12", "\"nextExportId\":0"},
      {"\"nextExportId\":12", "\"nextExportId\":4294967297"},
      {"\"nextExportId\":12", "\"nextExportId\":12.0"},
      {"\"id\":3", "\"id\":11"},
      {"\"id\":3", "\"id\":0"},
      {"\"id\":3", "\"id\":-3"},
      {"\"id\":3", "\"id\":4294967299"},
      {"\"id\":3,", ""},
      {"\"id\":3,", "\"id\":3,\"more\":null,"},
      {"\"name\":\"disk\"", "\"name\":\"\""},
      {"\"name\":\"disk\"", "\"name\":7"},
      {"\"name\":\"disk\"", R"("name":"gr\"ö\\ße")"},
      {"/srv/disk", "srv/disk"},
      {"\"readOnly\":false", "\"readOnly\":0"},
      {"\"elemSize\":512", "\"elemSize\":0"},
      {"\"elemCount\":2", "\"elemCount\":-2"},
      {"\"elemCount\":2", "\"elemCount\":18446744073709551615"},
      {"\"wanted\":\"enabled\"", "\"wanted\":\"failed\""},
      {"\"exports\":[", "\"exports\":[[],"},
  };
  for (const auto& [before, after] : changes) {
    EXPECT_FALSE(parseState(changed(before, after)).has_value()) << before << " -> " << after;
  }
  for (const std::string& text :
       std::vector<std::string>{"", "null", "[]", "{}", "\xff", "{\"format\":\"org.talvek.NBD.state\"}"}) {
    EXPECT_FALSE(parseState(text).has_value()) << text;
  }
}

TEST(SavedState, DeepNestingIsRefusedAndHarmless) {
  EXPECT_FALSE(parseState(std::string(1'000'000, '[')).has_value());
}

TEST(SavedState, TenThousandExportsTakeLinearTime) {
  const auto timeFor = [](std::uint32_t count) {
    SavedState state = sample();
    state.exports.clear();
    state.nextExportId = std::uint64_t{count} + 1;
    for (std::uint32_t id = 1; id <= count; ++id) {
      SavedExport saved = sample().exports.front();
      saved.id = Control::ExportId{id};
      saved.name = "disk-" + std::to_string(id);
      state.exports.push_back(saved);
    }
    const auto begin = std::chrono::steady_clock::now();
    const auto parsed = parseState(printState(state));
    const auto time = std::chrono::steady_clock::now() - begin;
    EXPECT_EQ(parsed.value(), state);
    return std::chrono::duration<double>(time).count();
  };
  const double small = timeFor(5'000);
  const double large = timeFor(50'000);
  // Ten times as much would be linear; a hundred times quadratic.
  EXPECT_LT(large, small * 40 + 0.1);
}

TEST(SavedStateProperty, WhateverExportsThereAreComeBack) {
  rc::check([](const std::vector<std::tuple<std::string, std::string, bool>>& raw) {
    SavedState state = sample();
    state.exports.clear();
    std::uint32_t id = 0;
    for (const auto& [name, node, readOnly] : raw) {
      SavedExport saved = sample().exports.front();
      saved.id = Control::ExportId{++id};
      saved.name = name + std::to_string(id);
      saved.node = "/" + node;
      if (readOnly) saved.flags.set(Control::ExportFlag::readOnly);
      if (isExportName(saved.name) && isNodePath(saved.node)) state.exports.push_back(saved);
    }
    state.nextExportId = std::uint64_t{id} + 1;
    const auto parsed = parseState(printState(state));
    RC_ASSERT(parsed.has_value());
    RC_ASSERT(*parsed == state);
  });
}

}  // namespace
}  // namespace Nbdd
