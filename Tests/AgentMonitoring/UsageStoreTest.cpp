// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageStore/UsageStore.h"
#include "AgentMonitoring/UsageStore/UsageStoreFormat.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cmath>
#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>

#include "CapturedLog.h"
#include "Domain/UsageCodec.h"
#include "Support/AtomicFile.h"
#include "UsageStoreWorld.h"

namespace vimbrel {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using World = UsageStoreWorld;

constexpr const char* documentedFile =
    R"({"schemaVersion":1,"events":[{"id":"e1","agentType":"codex","sessionId":"s1","turnId":"t1","inputTokens":1200,"outputTokens":300,"cachedTokens":800,"totalTokens":1500,"timestamp":784900000.5,"source":"codex-session-rollout"}],"sessions":{"s1":{"id":"s1","agentType":"codex","startedAt":784900000.5,"lastActiveAt":784900000.5,"durationSeconds":0,"totalTokens":1500,"inputTokens":1200,"outputTokens":300,"cachedTokens":800,"cacheWriteTokens":0,"reasoningTokens":0}},"seenKeys":["codex_s1_t1"]})";

TEST(UsageStore, writesTheDocumentedFile) {
  World world;
  const auto event = UsageEvent::make({.id = "e1",
                                       .agentType = AgentType::codex,
                                       .sessionId = "s1",
                                       .turnId = "t1",
                                       .inputTokens = 1200,
                                       .outputTokens = 300,
                                       .cachedTokens = 800,
                                       .timestamp = instantFromReferenceSeconds(784900000.5),
                                       .source = "codex-session-rollout"});
  EXPECT_TRUE(world.open().record(event));
  EXPECT_EQ(world.contents(), documentedFile);
  EXPECT_FALSE(world.store->record(event));
  EXPECT_EQ(world.open().allEvents(), std::vector{event});
  EXPECT_FALSE(world.store->record(event));
}

TEST(UsageStore, readsForeignKeyOrderUnknownKeysAndTheLegacyForm) {
  auto document = nlohmann::json::parse(documentedFile);  // sorts the keys
  document["note"] = document["events"][0]["note"] = {{"x", {1, nullptr, "\u00e9"}}};
  document["seenKeys"].push_back("claude_old_key");
  document["schemaVersion"] = 7;
  const auto later = document.dump(1);
  document.erase("schemaVersion");
  for (const auto& text : {later, document.dump()}) {
    const CapturedLog quiet;
    World world;
    world.put("usage_store.json", text);
    EXPECT_EQ(world.open().eventCount(), 1U);
    EXPECT_FALSE(world.store->record(turn("old", "key", 5))) << "a seen key without its event stays seen";
    EXPECT_TRUE(world.store->record(turn("s", "t", 5)));
    EXPECT_TRUE(world.contents().starts_with(R"({"schemaVersion":1,)"));
    EXPECT_TRUE(world.contents().contains("claude_old_key"));
  }
}

TEST(UsageStore, keepsAFileAsideThatItCannotRead) {
  auto missing = nlohmann::json::parse(documentedFile);
  missing["events"][0].erase("source");
  auto fraction = nlohmann::json::parse(documentedFile);
  fraction["sessions"]["s1"]["totalTokens"] = 1.5;
  const std::string document = documentedFile;
  for (const auto& text : {std::string(), std::string("not JSON"), std::string("{}"), missing.dump(),
                           fraction.dump(), document.substr(0, document.size() - 1), document + "x",
                           std::string(100'000, '['), R"({"x":")" + std::string(3 << 20, 'a') + R"("})",
                           std::string("{\"schemaVersion\":1,\"events\":[\"\xff\"]}")}) {
    World world;
    world.put("usage_store.json", text);
    CapturedLog log;
    EXPECT_EQ(world.open().eventCount(), 0U);
    EXPECT_TRUE(log.take().empty());
    EXPECT_EQ(world.contents(), text) << "nothing is touched before the first write";
    EXPECT_TRUE(world.store->record(turn("s", "t", 5)));
    EXPECT_EQ(world.contents("usage_store.unreadable-20251115T094640Z.json"), text);
    EXPECT_EQ(log.take().size(), 1U);
    EXPECT_EQ(world.open().eventCount(), 1U);
  }
  World world;  // Neither a directory nor a pipe stops the application.
  ASSERT_EQ(::mkfifo(world.options.path.c_str(), 0600), 0);
  CapturedLog log;
  EXPECT_TRUE(world.open().record(turn("s", "t", 5)));
  EXPECT_EQ(world.open().eventCount(), 1U);
}

TEST(UsageStore, refusesASecondOwner) {
  World world;
  world.open();
  const auto second = UsageStore::open(world.options, world.queue, world.time);
  ASSERT_FALSE(second);
  EXPECT_TRUE(second.error().contains("in use by another process"));
}

TEST(UsageStore, writesOnlyWhereThePolicyAllows) {
  World world;
  world.options.path = "/etc/Vimbrel/usage_store.json";
  CapturedLog log;
  EXPECT_TRUE(world.open().record(turn("s", "t", 5))) << "memory stays authoritative";
  EXPECT_FALSE(std::filesystem::exists("/etc/Vimbrel"));
  EXPECT_THAT(log.take(), Contains(HasSubstr("Vimbrel write security violation")));
  world.store.reset();
}

TEST(UsageStore, refusesWhatItsFileCannotHold) {
  World world;
  CapturedLog log;
  auto nan = turn("s", "t", 1);
  nan.costEstimateUSD = std::numeric_limits<double>::quiet_NaN();
  auto endless = turn("s", "t", 1);
  endless.quotaRemainingPercent = -std::numeric_limits<double>::infinity();
  EXPECT_EQ(world.open().recordAll({{nan, endless, turn("\xff", "t", 1),
                                     turn("s", std::string(70'000, 'x'), 1), turn("s", "t", 2)}}),
            1U);
  const auto infinity = std::numeric_limits<double>::infinity();
  int number = 0;
  const auto isAccepted = [&](double at, std::optional<double> cost) {
    auto event = turn("extremes", std::to_string(++number), 1, at);
    event.costEstimateUSD = cost;
    return world.store->record(event);
  };
  for (const double sign : {1.0, -1.0}) {
    for (const double at : {1.7e308, infinity, 1.1e12}) EXPECT_FALSE(isAccepted(sign * at, {})) << at;
    for (const double cost : {1.7e308, infinity, 1.1e9}) EXPECT_FALSE(isAccepted(0, sign * cost)) << cost;
    EXPECT_TRUE(isAccepted(sign * 1e12, sign * 1e9));
  }
  EXPECT_EQ(world.open().eventCount(), 3U);
}

TEST(UsageStore, staysReadableWhateverItsJournalAddsUpTo) {
  constexpr double most = 1.7e308;
  World world;
  std::string journal;
  for (const double sign : {1.0, -1.0}) {
    for (const char* id : {"1", "2", "3"}) {
      auto event = turn(sign > 0 ? "rich" : "poor", id, 1, id[0] == '1' ? -most : most);
      event.costEstimateUSD = sign * most;
      usageStoreFormat::appendJournalLine(journal, event.view());
    }
  }
  world.put("usage_store.journal.1", journal);
  world.open().record(turn("s", "t", 1));
  for (int reopened = 0; reopened < 2; ++reopened) {
    EXPECT_EQ(world.open().eventCount(), 7U);
    EXPECT_EQ(world.contents().find("inf"), std::string::npos);
    for (const auto& session : world.store->recentSessions()) {
      EXPECT_TRUE(std::isfinite(session.durationSeconds)) << session.id;
      EXPECT_TRUE(std::isfinite(session.estimatedCostUSD.value_or(0))) << session.id;
    }
  }
  // The difference to an earlier reading is not known at the end of a sum's range: it is made anew.
  auto later = turn("rich", "1", 2, 0);
  later.costEstimateUSD = 1;
  EXPECT_TRUE(world.store->record(later));
  later.turnId = "2";
  EXPECT_TRUE(world.store->record(later));
  for (const auto& session : world.store->recentSessions()) {
    if (session.id == "rich") {
      EXPECT_EQ(session.estimatedCostUSD, most) << "what the third of its events carries";
    }
  }
}

TEST(UsageStore, writesOnlyNumbersThatItCanRead) {
  auto event = turn("s", "t", 1);
  event.costEstimateUSD = std::numeric_limits<double>::infinity();
  event.quotaRemainingPercent = std::numeric_limits<double>::quiet_NaN();
  std::string line;
  usageStoreFormat::appendJournalLine(line, event.view());
  const auto read = usageStoreFormat::readJournalLine(line.substr(0, line.size() - 1));
  ASSERT_TRUE(read) << line;
  EXPECT_TRUE(std::isfinite(*read->costEstimateUSD) && std::isfinite(*read->quotaRemainingPercent));
}

TEST(UsageStore, answersByTimeAndExportsOnlyTotals) {
  World world;
  ::setenv("TZ", "Pacific/Auckland", 1);  // 2025-11-15 22:46 there: the day began at 11:00 UTC the day before
  ::tzset();
  auto& store = world.open();
  const double dayStart = 1'763'118'000;
  EXPECT_EQ(nlohmann::json::parse(store.exportPrivacySafeJSON())["eventCount"], 0);
  store.recordAll(
      {{turn("a", "before", 1, dayStart - 0.001), turn("b", "first", 2, dayStart),
        turn("c", "last", 4, dayStart + 86'399.999), turn("d", "tomorrow", 8, dayStart + 86'400)}});
  EXPECT_EQ(store.todaySummary().totalTokens, 14);
  EXPECT_EQ(store.summary(instantFromUnixSeconds(dayStart), instantFromUnixSeconds(dayStart)).totalTokens, 2);
  EXPECT_TRUE(store.recentSessions(0).empty());
  EXPECT_EQ(store.recentSessions(2)[1].id, "c");
  const auto text = store.exportPrivacySafeJSON();
  const auto exported = nlohmann::json::parse(text);
  EXPECT_EQ(exported["todaySummary"]["totalTokens"], 6);
  EXPECT_EQ(exported["eventCount"], 4);
  EXPECT_EQ(exported["exportedAt"], "2025-11-15T09:46:40Z");
  EXPECT_EQ(exported["sessions"][0]["id"], "d");
  EXPECT_EQ(text.find("tomorrow"), std::string::npos);
  EXPECT_EQ(text.find("\"test\""), std::string::npos);
  EXPECT_TRUE(text.starts_with("{\n  \"eventCount\": 4,"));
  ::setenv("TZ", "UTC", 1);
  ::tzset();
}

TEST(UsageStore, forgetsEverythingWhenReset) {
  for (const std::size_t wholeFileBytes : {std::size_t{1} << 20, std::size_t{0}}) {
    World world;
    world.options.wholeFileBytes = wholeFileBytes;
    world.open();
    for (int i = 0; i < 20; ++i) world.store->record(turn("s", std::to_string(i), 1));
    world.store->resetStore();
    EXPECT_EQ(world.contents(),
              R"({"schemaVersion":1,"events":[],"sessions":{},"seenKeys":[],"forgottenBefore":784892800})");
    EXPECT_EQ(world.open().eventCount(), 0U);
    for (int reopened = 0; reopened < 2; ++reopened) {
      EXPECT_FALSE(world.store->record(turn("s", "2", 1, 1'763'199'999))) << "a log that still has it";
      EXPECT_EQ(UsageStore::Bulk(*world.store).recordAll({{turn("s", "3", 1, 1'763'199'999)}}), 0U);
      world.open();
    }
    EXPECT_TRUE(world.store->record(turn("s", "1", 1)));
  }
}

TEST(UsageStore, acceptsWhatComesAfterAClockWasSetBackPastItsReset) {
  World world;
  world.time.jumpWallClock(Seconds(1e8));
  world.open().resetStore();
  world.time.jumpWallClock(Seconds(-1e8));
  EXPECT_TRUE(world.open().record(turn("s", "1", 1)));
  EXPECT_FALSE(world.store->record(turn("s", "2", 1, 1'763'199'999)));
  world.time.advance(std::chrono::hours(1));
  EXPECT_TRUE(world.open().record(turn("s", "3", 1, 1'763'200'060))) << "the earlier limit stands";
  EXPECT_EQ(world.open().eventCount(), 2U);
}

TEST(UsageStore, tellsWhetherItMayLackHistory) {
  World world;
  EXPECT_TRUE(world.open().mayLackHistory()) << "there is no file";
  world.store->record(turn("s", "1", 1));
  EXPECT_FALSE(world.open().mayLackHistory());
  world.store->resetStore();
  EXPECT_FALSE(world.open().mayLackHistory()) << "what was forgotten is not lacking";
  world.put("usage_store.journal.9", "garbage\n");
  EXPECT_TRUE(world.open().mayLackHistory());
  EXPECT_FALSE(world.open().mayLackHistory());
  world.store.reset();
  world.put("usage_store.json", "{");
  EXPECT_TRUE(world.open().mayLackHistory());
}

TEST(UsageStore, aFullDiskLosesNothingAndIsForgottenWhenThereIsRoom) {
  for (const std::size_t wholeFileBytes : {std::size_t{1} << 20, std::size_t{0}}) {
    World world;
    world.options.wholeFileBytes = wholeFileBytes;
    world.options.journalShare = 1;
    world.open();
    for (int i = 0; i < 50; ++i) world.store->record(turn("s", std::to_string(i), 1));
    world.time.advance(std::chrono::seconds(1));
    const auto before = world.contents();
    CapturedLog log;
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit full{1000, limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &full);
    for (int i = 50; i < 60; ++i) EXPECT_TRUE(world.store->record(turn("s", std::to_string(i), 1)));
    world.time.advance(std::chrono::seconds(30));
    EXPECT_EQ(world.contents(), before);
    EXPECT_FALSE(log.take().empty());
    setrlimit(RLIMIT_FSIZE, &limit);
    std::signal(SIGXFSZ, handler);
    world.time.advance(std::chrono::seconds(11));
    EXPECT_EQ(world.countAfterAKill(), 60U) << "written again without a further event";
  }
}

TEST(UsageStore, toleratesATornLastLineAtEveryByte) {
  std::string journal;
  for (const char* id : {"1", "2", "3"})
    usageStoreFormat::appendJournalLine(journal, turn("s", id, 1).view());
  const auto lastLine = journal.rfind('\n', journal.size() - 2) + 1;
  for (auto cut = lastLine; cut <= journal.size(); ++cut) {
    World world;
    world.put("usage_store.journal.1", journal.substr(0, cut));
    CapturedLog log;
    const bool isWhole = cut + 1 >= journal.size();  // only the line break is missing, if anything
    ASSERT_EQ(world.open().eventCount(), isWhole ? 3U : 2U) << cut;
    EXPECT_TRUE(world.store->record(turn("s", "next", 1)));
    ASSERT_EQ(world.open().eventCount(), isWhole ? 4U : 3U) << cut;
    for (const auto& line : log.take()) EXPECT_EQ(line.find("error"), std::string::npos) << line;
  }
}

TEST(UsageStore, passesOverUnreadableJournalLinesAndKeepsThem) {
  World world;
  std::string journal;
  usageStoreFormat::appendJournalLine(journal, turn("s", "1", 1).view());
  journal += "garbage\n\n{\"id\":3}\n" + std::string(3 << 20, 'x') + "\n";
  usageStoreFormat::appendJournalLine(journal, turn("s", "2", 1).view());
  world.put("usage_store.journal.7", journal);
  CapturedLog log;
  EXPECT_EQ(world.open().eventCount(), 2U);
  EXPECT_THAT(log.take(), ElementsAre(HasSubstr("Passed over 4 unreadable lines")));
  EXPECT_EQ(world.contents("usage_store.journal.7.unreadable"), journal);
  EXPECT_EQ(world.open().eventCount(), 2U);
  EXPECT_EQ(log.take().size(), 1U) << "only the loading is told again";
}

TEST(UsageStore, writesABulkOnceAndKeepsItUnwrittenWhereThatFails) {
  World world;
  world.open().record(turn("s", "before", 1));
  CapturedLog log;
  {
    UsageStore::Bulk bulk(*world.store);
    const auto before = world.contents();
    for (int i = 0; i < 20; ++i) {
      EXPECT_EQ(bulk.recordAll({{turn("s", std::to_string(i), 1), turn("s", "before", 1)}}), 1U);
    }
    EXPECT_EQ(world.contents(), before);
    // An event that was not part of it is on disk at once, and everything with it.
    EXPECT_TRUE(world.store->record(turn("s", "other", 1)));
    EXPECT_TRUE(world.contents().contains("_19\"") && world.contents().contains("_other\""));

    EXPECT_EQ(bulk.recordAll({{turn("s", "late", 1)}}), 1U);
    std::filesystem::create_directory(world.options.path + ".new");
    EXPECT_FALSE(bulk.finish());
    EXPECT_FALSE(log.take().empty());
    EXPECT_TRUE(world.store->record(turn("s", "meanwhile", 1)));
    std::filesystem::remove(world.options.path + ".new");
    EXPECT_TRUE(bulk.finish());
  }
  EXPECT_EQ(world.countAfterAKill(), 24U);
}

TEST(UsageStore, givesEventsAPriceThatBecameKnownLater) {
  World world;
  auto unknown = turn("s", "1", 1'000'000);
  unknown.modelId = "house-model";
  auto known = turn("s", "2", 1'000'000);
  known.modelId = "house-model";
  known.costEstimateUSD = 0.5;
  auto nested = turn("c", "3", 1'000'000);
  nested.agentType = AgentType::codex;
  nested.cachedTokens = 400'000;
  nested.modelId = "house-model";
  world.open().recordAll({{unknown, known, nested, turn("s", "4", 7)}});
  EXPECT_EQ(world.store->priceUnpriced(ModelRateCard::builtIn()), 0U);
  const auto card = ModelRateCard::builtIn().with({{"house-model", {2, 8, 1, 2, 8}, std::nullopt}});
  EXPECT_EQ(world.store->priceUnpriced(card), 2U);
  for (int reopened = 0; reopened < 2; ++reopened) {
    const auto events = world.store->allEvents();
    EXPECT_EQ(events[0].costEstimateUSD, 2.0);
    EXPECT_EQ(events[1].costEstimateUSD, 0.5);
    EXPECT_DOUBLE_EQ(*events[2].costEstimateUSD, 0.6 * 2 + 0.4) << "cached tokens are part of its input";
    EXPECT_FALSE(events[3].costEstimateUSD);
    double sessions = 0;
    for (const auto& session : world.store->recentSessions())
      sessions += session.estimatedCostUSD.value_or(0);
    EXPECT_DOUBLE_EQ(sessions, 2.0 + 0.5 + 1.6);
    world.open();
  }
  EXPECT_EQ(world.store->priceUnpriced(card), 0U);
  // Nor does a price bring in what an event could not.
  auto another = turn("s", "5", 1'000'000);
  another.modelId = "golden-model";
  EXPECT_TRUE(world.store->record(another));
  const auto golden = ModelRateCard::builtIn().with({{"golden-model", {1e300, 8, 1, 2, 8}, std::nullopt}});
  EXPECT_EQ(world.store->priceUnpriced(golden), 0U);
}

/// Sums and sessions always equal what the list of accepted events gives, whatever happened in which order.
TEST(UsageStore, agreesWithARecomputationAfterAnySequence) {
  for (unsigned seed = 1; seed <= 30; ++seed) {
    std::mt19937 random(seed);
    const auto below = [&](unsigned bound) {
      return std::uniform_int_distribution<unsigned>(0, bound - 1)(random);
    };
    World world;
    world.options.wholeFileBytes = below(3) * 2000;
    world.options.journalShare = 1 + below(8);
    world.open();
    std::vector<UsageEvent> model;
    const auto draw = [&] {
      auto event = turn("s" + std::to_string(below(4)), "t" + std::to_string(below(40)), 1 + below(50),
                        1.7e9 + below(1000) / 8.0);
      event.agentType = below(2) == 0 ? AgentType::claude : AgentType::codex;
      if (below(3) == 0) event.costEstimateUSD = below(100) / 4.0;
      if (below(3) == 0) event.cachedTokens = below(9);
      if (below(5) == 0) event.turnId.reset();
      if (below(60) == 0) event.outputTokens = std::numeric_limits<std::int64_t>::max();
      return event;
    };
    const auto accept = [&](const UsageEvent& event) {
      for (auto& known : model) {
        if (known.deduplicationKey() != event.deduplicationKey()) continue;
        const bool isMore = event.view().countsMoreThan(known.view());
        if (isMore) known = event;
        return isMore;
      }
      model.push_back(event);
      return true;
    };
    for (int step = 0; step < 120; ++step) {
      switch (below(8)) {
        case 0:
          world.open();
          break;
        case 1:
          world.time.advance(std::chrono::milliseconds(below(1500)));
          break;
        case 2: {
          std::vector<UsageEvent> batch;
          std::size_t accepted = 0;
          for (unsigned i = below(20); i > 0; --i) batch.push_back(draw());
          for (const auto& event : batch) accepted += accept(event) ? 1U : 0U;
          if (below(2) == 0) {
            ASSERT_EQ(world.store->recordAll(batch), accepted);
          } else {
            ASSERT_EQ(UsageStore::Bulk(*world.store).recordAll(batch), accepted);
          }
          break;
        }
        default: {
          const auto event = draw();
          ASSERT_EQ(world.store->record(event), accept(event));
        }
      }
    }
    ASSERT_EQ(world.store->allEvents(), model) << seed;
    const auto everything =
        world.store->summary(instantFromUnixSeconds(-1e300), instantFromUnixSeconds(1e300));
    EXPECT_EQ(everything, summarise(model)) << seed;
    world.open();
    ASSERT_EQ(world.store->allEvents(), model) << seed;
    for (const auto& session : world.store->recentSessions()) {
      std::vector<UsageEvent> own;
      std::ranges::copy_if(model, std::back_inserter(own),
                           [&](const UsageEvent& event) { return event.sessionId == session.id; });
      EXPECT_EQ(session.totalTokens, summarise(own).totalTokens) << seed;
      EXPECT_EQ(session.estimatedCostUSD, summarise(own).estimatedCostUSD) << seed;
    }
  }
}

}  // namespace
}  // namespace vimbrel
