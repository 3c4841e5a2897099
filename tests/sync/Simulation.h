// A seeded simulation of one server and one client that edit, exchange
// components over an unreliable network, crash and restart, and must end
// equal with no edit lost.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "MemoryStorage.h"
#include "SimHost.h"
#include "loomwork/sqlite/OTSQLiteDataSource.h"

namespace loomwork::synctest {

struct Faults {
  bool delays = false;      // random delays, hence reordering
  bool drops = false;       // messages lost (and resent later)
  bool duplicates = false;  // messages delivered twice
  bool crashes = false;     // either side restarts from its file, also inside a transaction
  bool offline = false;     // long stretches in which one side is cut off
  bool seeds = false;       // the server offers replacement seeds
};

// A local edit as committed: which side, which property of which entity, the
// value, the step it became on its side's axis and how many of the other
// side's steps that side had seen.
struct Edit {
  int side;
  std::string uuid;
  std::string property;
  Value value;
  int64_t step;
  int64_t seen;
};

// Where a device's storage lives between restarts: a database file, or a
// MemoryFile.
template <class Storage>
struct StorageFile;
template <>
struct StorageFile<OTSQLiteDataSource> {
  std::string path;
  explicit StorageFile(const std::filesystem::path& file) : path(file.string() + ".sqlite") {}
  std::shared_ptr<Host<OTSQLiteDataSource>> open() const { return std::make_shared<Host<OTSQLiteDataSource>>(path); }
};
template <>
struct StorageFile<MemoryStorage> {
  std::shared_ptr<MemoryFile> file = std::make_shared<MemoryFile>();
  explicit StorageFile(const std::filesystem::path&) {}
  std::shared_ptr<Host<MemoryStorage>> open() const { return std::make_shared<Host<MemoryStorage>>(file); }
};

template <class Storage>
class Simulation {
 public:
  static constexpr int kServer = 0, kClient = 1;

  // Memory-backed when the system has it: the runs test the logic of
  // durability (what a crash keeps), not the disk.
  static std::filesystem::path scratchDirectory() {
    std::error_code error;
    if (std::filesystem::is_directory("/dev/shm", error)) return "/dev/shm";
    return std::filesystem::temp_directory_path();
  }

  Simulation(uint64_t seed, Faults faults, int ticks)
      : rng_(seed), faults_(faults), ticks_(ticks),
        directory_(scratchDirectory() /
                   ("loomwork-sim-" + std::to_string(::getpid()) + "-" + std::to_string(seed))) {
    std::filesystem::remove_all(directory_);
    std::filesystem::create_directories(directory_);
    for (int side : {kServer, kClient}) {
      devices_[side].type = side == kServer ? OTSyncControllerTypeServer : OTSyncControllerTypeClient;
      devices_[side].file.emplace(directory_ / (side == kServer ? "server" : "client"));
      open(side);
    }
  }
  ~Simulation() {
    for (auto& device : devices_) {
      device.controller.reset();
      device.host.reset();
    }
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }

  // Runs the edits with faults, then heals the network and processes until
  // nothing changes. Returns an empty text when every check holds, otherwise
  // what failed.
  std::string run() {
    pair();
    for (now_ = 0; now_ < ticks_; ++now_) tick(true);
    return heal();
  }

  size_t storedComponents(int side) { return devices_[side].host->pathComponentCount(); }
  size_t storedBytes(int side) { return devices_[side].host->pathComponentBytes(); }
  size_t editCount() const { return edits_.size(); }

 private:
  struct Device {
    OTSyncControllerType type;
    std::optional<StorageFile<Storage>> file;
    std::shared_ptr<Host<Storage>> host;
    std::shared_ptr<OTSyncController> controller;
    bool online = true;
    std::vector<std::pair<int64_t, int64_t>> integrated;  // remote-axis intervals
    std::string problem;
  };
  struct InFlight {
    int to;
    int64_t at;
    uint64_t order;
    Message message;
  };

  int uniform(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
  bool chance(double p) { return std::bernoulli_distribution(p)(rng_); }

  void open(int side) {
    Device& device = devices_[side];
    device.host = device.file->open();
    device.controller = make<OTSyncController>(device.type);
    device.controller->setDataSource(device.host);
    if (device.type == OTSyncControllerTypeServer) device.controller->setMergeClass(OTMergeClassOf<OTMerge>());
    device.host->controller = device.controller;
    device.host->onIntegration = [&device](const OTState& before, const OTState& after) {
      const bool server = device.type == OTSyncControllerTypeServer;
      const int64_t from = server ? before.clientIndex() : before.serverIndex();
      const int64_t to = server ? after.clientIndex() : after.serverIndex();
      if (after.serverIndex() < before.serverIndex() || after.clientIndex() < before.clientIndex())
        device.problem = "the state went back from " + before.description() + " to " + after.description();
      for (const auto& [a, b] : device.integrated)
        if (from < b && a < to) device.problem = "remote steps integrated twice: " + before.description();
      if (from < to) device.integrated.emplace_back(from, to);
    };
    device.controller->restoreInternalState();
    device.host->loadModel();
  }

  void restart(int side) {
    devices_[side].controller.reset();
    devices_[side].host.reset();  // closing rolls back an open transaction
    open(side);
  }

  // Runs an action of one side; a crash inside it restarts that side.
  template <class Action>
  void guarded(int side, Action&& action) {
    try {
      action();
    } catch (const Crash&) {
      restart(side);
    }
  }

  void pair() {
    const auto identifier = OTStateSpaceIdentifier::stateSpaceIdentifierWithServerIdentifierClientIdentifier(
        "S" + std::to_string(rng_() % 1000), "C" + std::to_string(rng_() % 1000));
    for (int side : {kServer, kClient}) {
      Device& device = devices_[side];
      auto content = UGMutableTransaction::transaction();
      for (int i = uniform(0, 3); i > 0; --i) addCreate(side, *content);
      device.host->apply(*content);
      device.controller->resetIfNeededAndSeedUsingStateSpaceIdentifier(identifier);
      record(side, *content);
    }
  }

  // MARK: Edits

  Value randomValue(const Model& model) {
    switch (uniform(0, 6)) {
      case 0: return Value::null();
      case 1: return Value(uniform(0, 1) == 1);
      case 2: return Value(static_cast<double>(uniform(0, 1000)) / 8);
      case 3: return Value::set({Value("red"), Value(uniform(0, 3))});
      case 4: {  // an ordered to-many relation
        Array members;
        for (const auto& [uuid, entity] : model)
          if (chance(0.3)) members.push_back(Value(uuid));
        std::shuffle(members.begin(), members.end(), rng_);
        return Value(std::move(members));
      }
      case 5: {  // a to-one relation
        if (model.empty()) return Value("none");
        auto it = model.begin();
        std::advance(it, uniform(0, static_cast<int>(model.size()) - 1));
        return Value(it->first);
      }
      default: return Value("t" + std::to_string(uniform(0, 99)));
    }
  }

  static inline const std::vector<std::string> kProperties = {"title", "done", "rank", "tags", "items", "parent"};

  void addCreate(int side, UGMutableTransaction& transaction) {
    const std::string uuid = (side == kServer ? "S" : "C") + std::to_string(nextEntity_++);
    auto operation = make<UGMutableEntityOperation>(UGEntityOperationTypeCreate, chance(0.5) ? "Task" : "Project");
    for (const auto& name : kProperties)
      if (chance(0.5)) operation->setValueForProperty(randomValue(devices_[side].host->model), name);
    transaction.setOperationForUUID(operation, uuid);
  }

  Ref<UGMutableTransaction> randomEdit(int side) {
    const Model& model = devices_[side].host->model;
    auto transaction = UGMutableTransaction::transaction();
    for (int n = uniform(1, 3); n > 0; --n) {
      const int kind = model.empty() ? 0 : uniform(0, 9);
      if (kind == 0 || model.size() < 3) {
        addCreate(side, *transaction);
        continue;
      }
      auto it = model.begin();
      std::advance(it, uniform(0, static_cast<int>(model.size()) - 1));
      if (transaction->operationForUUID(it->first)) continue;
      if (kind == 1) {
        transaction->setOperationForUUID(make<UGMutableEntityOperation>(UGEntityOperationTypeDelete, it->second.kind),
                                         it->first);
        continue;
      }
      auto operation = make<UGMutableEntityOperation>(UGEntityOperationTypeUpdate, it->second.kind);
      for (int p = uniform(1, 2); p > 0; --p)
        operation->setValueForProperty(randomValue(model), kProperties[static_cast<size_t>(uniform(0, 5))]);
      transaction->setOperationForUUID(operation, it->first);
    }
    return transaction;
  }

  void record(int side, const UGTransaction& transaction) {
    const OTSyncController& controller = *devices_[side].controller;
    transaction.enumerateEntityOperations([&](const std::string& uuid, const Ref<UGEntityOperation>& operation, bool&) {
      if (operation->type() == UGEntityOperationTypeDelete) deleted_.insert(uuid);
      for (const auto& [name, value] : operation->properties())
        edits_.push_back({side, uuid, name, value, controller.currentLocalIndex(), controller.currentRemoteIndex()});
    });
  }

  // MARK: Ticks

  void tick(bool faulty) {
    for (int side : {kServer, kClient}) {
      Device& device = devices_[side];
      if (faulty && faults_.offline && chance(0.04)) device.online = !device.online;
      if (faulty && chance(0.3)) {
        for (int n = uniform(1, 4); n > 0; --n) {
          guarded(side, [&] {
            auto edit = randomEdit(side);
            device.host->commitLocalChange(*device.controller, *edit);
            record(side, *edit);
          });
        }
      }
      if (faulty && faults_.crashes && chance(0.03)) {
        if (chance(0.5)) {
          restart(side);
        } else {
          device.host->crashCountdown = uniform(1, 12);
        }
      }
      if (device.online) {
        guarded(side, [&] {
          for (auto& message : device.host->outgoing(*device.controller, now_ % 6 == 0,
                                                     faulty && faults_.seeds && chance(0.1)))
            send(1 - side, std::move(message), faulty);
          device.host->process(*device.controller);
        });
      }
    }
    deliver(faulty);
  }

  void send(int to, Message message, bool faulty) {
    if (faulty && faults_.drops && chance(0.15)) return;
    const int copies = faulty && faults_.duplicates && chance(0.15) ? 2 : 1;
    for (int i = 0; i < copies; ++i) {
      const int64_t delay = faulty && faults_.delays ? uniform(0, 6) : 0;
      network_.push_back({to, now_ + delay, order_++, message});
    }
  }

  void deliver(bool faulty) {
    std::vector<InFlight> due;
    std::erase_if(network_, [&](InFlight& item) {
      if (item.at > now_) return false;
      due.push_back(std::move(item));
      return true;
    });
    std::sort(due.begin(), due.end(), [](const InFlight& a, const InFlight& b) {
      return a.at != b.at ? a.at < b.at : a.order < b.order;
    });
    for (InFlight& item : due) {
      Device& device = devices_[item.to];
      if (!device.online) continue;  // lost; the sender resends
      guarded(item.to, [&] {
        if (auto reply = device.host->receive(item.message)) send(1 - item.to, std::move(*reply), faulty);
      });
    }
  }

  // MARK: Healing and the checks

  std::string heal() {
    for (auto& device : devices_) {
      device.online = true;
      device.host->crashCountdown = -1;
    }
    int quiet = 0;
    for (int round = 0; round < 400 && quiet < 3; ++round, ++now_) {
      tick(false);
      const bool settled = network_.empty() && devices_[kServer].host->pendingTransfers().empty() &&
                           devices_[kClient].host->pendingTransfers().empty() &&
                           devices_[kServer].controller->currentState() == devices_[kClient].controller->currentState();
      quiet = settled ? quiet + 1 : 0;
    }
    std::string failure;
    for (const auto& device : devices_)
      if (!device.problem.empty()) failure += device.problem + "\n";
    if (quiet < 3) {
      failure += "did not settle: server " + devices_[kServer].controller->description() + ", client " +
                 devices_[kClient].controller->description() + "\n";
    }
    const Model& server = devices_[kServer].host->model;
    const Model& client = devices_[kClient].host->model;
    if (server != client) failure += "models differ:\nserver\n" + describe(server) + "client\n" + describe(client);
    failure += lostEdits(server, "server") + lostEdits(client, "client");
    return failure;
  }

  // A property's value must come from one of its last edits: an edit is
  // replaced by a later edit of the same side and by any edit of the other
  // side made after it had been seen there. With one last edit that is the
  // value. When both sides made a last edit concurrently, either may win: the
  // server's in a single merge, but when an earlier client edit of equal
  // value was merged first, the merge's reduction drops the server's value
  // from the client's remainder and the client's later edit then stands.
  std::string lostEdits(const Model& model, const std::string& name) {
    std::map<std::pair<std::string, std::string>, std::vector<const Edit*>> byProperty;
    for (const Edit& edit : edits_)
      if (!deleted_.contains(edit.uuid)) byProperty[{edit.uuid, edit.property}].push_back(&edit);
    std::string failure;
    for (const auto& [key, edits] : byProperty) {
      std::vector<const Edit*> last;
      for (const Edit* edit : edits) {
        const bool replaced = std::any_of(edits.begin(), edits.end(), [&](const Edit* other) {
          return other->side == edit->side ? other->step > edit->step : other->seen >= edit->step;
        });
        if (!replaced) last.push_back(edit);
      }
      std::optional<Value> value;
      if (auto entity = model.find(key.first); entity != model.end())
        if (auto it = entity->second.properties.find(key.second); it != entity->second.properties.end())
          value = it->second;
      const bool kept = value && std::any_of(last.begin(), last.end(), [&](const Edit* edit) { return *value == edit->value; });
      if (!kept)
        failure += "lost on the " + name + ": " + key.first + "." + key.second + ", found " +
                   (value ? value->description() : std::string("nothing")) + "; edits:" + history(edits) + "\n";
    }
    return failure;
  }

  static std::string history(const std::vector<const Edit*>& edits) {
    std::string text;
    for (const Edit* edit : edits)
      text += " [side " + std::to_string(edit->side) + " step " + std::to_string(edit->step) + " seen " +
              std::to_string(edit->seen) + " " + edit->value.description() + "]";
    return text;
  }

  std::mt19937_64 rng_;
  Faults faults_;
  int ticks_;
  std::filesystem::path directory_;
  Device devices_[2];
  std::vector<InFlight> network_;
  uint64_t order_ = 0;
  int64_t now_ = 0;
  int nextEntity_ = 0;
  std::vector<Edit> edits_;
  std::set<std::string> deleted_;
};

}  // namespace loomwork::synctest
