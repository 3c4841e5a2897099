// The message framing, the merge class and the model tables of loomwork-tasks, in process.
#include <gtest/gtest.h>

#include <random>

#include <unistd.h>

#include <filesystem>

#include "Device.h"
#include "TaskMerge.h"
#include "Wire.h"

namespace loomwork::tasks {
namespace {

// Frames of random kinds and sizes, cut into random pieces, come back whole
// and in order; a stream with a bad header fails at that header and stays
// failed; mutated streams never yield a frame longer than announced.
TEST(Wire, FramesSurviveAnySplitAndBadHeadersFail) {
  for (uint32_t seed = 1; seed <= 40; ++seed) {
    std::mt19937 random(seed);
    std::vector<Frame> sent;
    std::vector<uint8_t> stream;
    for (int n = random() % 20; n > 0; --n) {
      Frame frame{static_cast<FrameKind>(1 + random() % 5), {}};
      frame.payload.resize(random() % 3 == 0 ? random() % 70000 : random() % 40);
      for (auto& byte : frame.payload) byte = static_cast<uint8_t>(random());
      auto bytes = encodeFrame(frame.kind, frame.payload);
      stream.insert(stream.end(), bytes.begin(), bytes.end());
      sent.push_back(std::move(frame));
    }
    FrameReader reader;
    std::vector<Frame> received;
    for (size_t at = 0; at < stream.size();) {
      const size_t piece = std::min<size_t>(stream.size() - at, 1 + random() % 9000);
      ASSERT_TRUE(reader.feed(std::span(stream).subspan(at, piece), received)) << "seed " << seed;
      at += piece;
    }
    EXPECT_FALSE(reader.inFrame());
    ASSERT_EQ(received.size(), sent.size()) << "seed " << seed;
    for (size_t i = 0; i < sent.size(); ++i) {
      EXPECT_EQ(received[i].kind, sent[i].kind);
      EXPECT_EQ(received[i].payload, sent[i].payload) << "seed " << seed << " frame " << i;
    }

    // One corrupted byte somewhere: whatever comes out is no longer than the
    // cap, and a failed reader accepts nothing more.
    if (stream.empty()) continue;
    stream[random() % stream.size()] ^= static_cast<uint8_t>(1 + random() % 255);
    FrameReader mutated;
    std::vector<Frame> frames;
    const bool good = mutated.feed(stream, frames);
    for (const auto& frame : frames) EXPECT_LE(frame.payload.size() + 1, kMaxFrameLength);
    if (!good) {
      EXPECT_FALSE(mutated.error().empty());
      EXPECT_FALSE(mutated.feed(encodeFrame(FrameKind::Claim, std::string()), frames));
    }
  }

  for (const std::vector<uint8_t>& header : {std::vector<uint8_t>{0xFF, 0xFF, 0xFF, 0xFF, 2},  // 4 GB
                                             std::vector<uint8_t>{0x10, 0x00, 0x00, 0x01, 2},  // above the cap
                                             std::vector<uint8_t>{0, 0, 0, 0, 2},              // no kind byte
                                             std::vector<uint8_t>{0, 0, 0, 1, 9}}) {           // unknown kind
    FrameReader reader;
    std::vector<Frame> frames;
    EXPECT_FALSE(reader.feed(header, frames));
    EXPECT_TRUE(frames.empty());
  }
}

TEST(Wire, PayloadsDecodeOnlyWhenWellFormed) {
  const std::vector<uint8_t> data{1, 2, 3};
  auto frame = encodeComponent("ABC", data);
  auto component = decodeComponent(std::span(frame).subspan(5));
  ASSERT_TRUE(component);
  EXPECT_EQ(component->uniqueIdentifier, "ABC");
  EXPECT_EQ(std::vector<uint8_t>(component->data.begin(), component->data.end()), data);
  EXPECT_FALSE(decodeComponent(std::span(frame).subspan(5, 5)));  // no component bytes
  EXPECT_FALSE(decodeComponent(std::vector<uint8_t>{0, 0, 7}));     // empty identifier
  EXPECT_FALSE(decodeComponent(std::vector<uint8_t>{0xFF, 0xFF, 1}));

  auto claim = encodeClaim(OTState(7, 1LL << 40));
  EXPECT_EQ(decodeClaim(std::span(claim).subspan(5)), OTState(7, 1LL << 40));
  EXPECT_FALSE(decodeClaim(std::span(claim).subspan(5, 15)));
  std::vector<uint8_t> negative(16, 0xFF);
  EXPECT_FALSE(decodeClaim(negative));
}

// Both sides set a task's title: the later "modified" wins whichever side
// made it, the server on a tie; a list (no date) keeps the server's value.
TEST(Wire, MergeLetsTheLaterEditWin) {
  auto update = [](const char* kind, const char* title, std::optional<double> modified) {
    auto operation = make<UGMutableEntityOperation>(UGEntityOperationTypeUpdate, kind);
    operation->setValueForProperty(Value(title), "title");
    if (modified) operation->setValueForProperty(Value::date(*modified), "modified");
    return UGMutableTransaction::transactionWithOperationForUUID(operation, "T");
  };
  const TaskMerge merge;
  auto title = [&](const Ref<UGMutableTransaction>& server, const Ref<UGMutableTransaction>& client) {
    auto merged = merge.mergeServerOperationClientOperation(*server, *client);
    return std::string(merged->operationForUUID("T")->valueForProperty("title")->string());
  };
  EXPECT_EQ(title(update("Task", "s", 10), update("Task", "c", 20)), "c");
  EXPECT_EQ(title(update("Task", "s", 30), update("Task", "c", 20)), "s");
  EXPECT_EQ(title(update("Task", "s", 20), update("Task", "c", 20)), "s");
  EXPECT_EQ(title(update("List", "s", std::nullopt), update("List", "c", std::nullopt)), "s");
}

}  // namespace
}  // namespace loomwork::tasks

namespace loomwork::tasks {
namespace {

// The model's tables give back exactly what was written: typed columns, and
// values that do not fit them (explicit nulls, other types, properties and
// entity kinds this version does not know) through the extras.
TEST(DeviceStore, ModelReadBackAfterARestartEqualsTheModelWritten) {
  const auto path = std::filesystem::temp_directory_path() / ("loomwork-store-" + std::to_string(::getpid()) + ".db");
  std::filesystem::remove(path);
  auto [list, createList] = TaskModel::createList("Home", 1.5);
  auto [task, createTask] = TaskModel::createTask(list, "Call Bob", 20000, "see https://example.com");
  auto odd = make<UGMutableEntityOperation>(UGEntityOperationTypeCreate, "Tag");
  odd->setValueForProperty(Value::array({Value("a"), Value(2)}), "members");
  auto strange = TaskModel::update(task, kTaskKind, {{"due", Value("soon")}, {"priority", Value(3)}});
  auto listOrder = TaskModel::update(list, kListKind, {{"order", Value(int64_t{7})}, {"name", Value::null()}});
  std::map<std::string, Entity> written;
  {
    asio::io_context context;
    Device device(context, {Role::Server, path.string(), "127.0.0.1", 0});
    device.start();
    for (const auto& transaction : {createList, createTask}) device.commit(transaction);
    device.commit(UGMutableTransaction::transactionWithOperationForUUID(odd, "TAG-1"));
    device.commit(strange);
    device.commit(listOrder);
    written = device.model().entities();
    device.commit(TaskModel::remove(task, kTaskKind));
    auto [kept, keptTask] = TaskModel::createTask(list, "Kept");
    device.commit(keptTask);
    EXPECT_EQ(written.at(task).properties.at("priority"), Value(3));
    written = device.model().entities();
  }
  asio::io_context context;
  Device device(context, {Role::Server, path.string(), "127.0.0.1", 0});
  device.start();
  EXPECT_EQ(device.model().entities(), written);
  EXPECT_EQ(written.size(), 3u);
  EXPECT_TRUE(written.at(list).properties.at("name").isNull());
  std::filesystem::remove(path);
}

}  // namespace
}  // namespace loomwork::tasks
