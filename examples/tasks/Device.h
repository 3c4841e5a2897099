// One device of loomwork-tasks: its SQLite file (the sync store and the model's
// own tables), its sync controller, and its TCP link to the other device, all
// driven from one Asio io_context on one thread. The screen and the batch
// driver run on the same context and use only what is declared here.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <asio.hpp>

#include "TaskModel.h"
#include "loomwork/sync.h"

namespace loomwork::tasks {

enum class Role { Server, Client };

struct DeviceOptions {
  Role role = Role::Client;
  std::string databasePath;  // the device's SQLite file, made if missing
  std::string host = "127.0.0.1";
  unsigned short port = 0;  // server: port to listen on (0 picks one); client: port to connect to
};

// What the status line shows.
struct SyncStatus {
  std::optional<OTState> currentState;
  std::optional<OTState> claimedRemoteState;
  size_t componentsWaiting = 0;  // queued for transfer, not yet acknowledged
  bool online = true;            // the user's switch
  bool connected = false;        // a live connection to the other device
  std::optional<double> seedProgress;  // 0...1 while a replacement seed arrives
};

class Device {
 public:
  Device(asio::io_context& context, DeviceOptions options);
  ~Device();
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  // Opens the file, restores the controller, loads the model, and starts
  // listening (server) or connecting (client) while online.
  void start();

  TaskModel& model();
  const DeviceOptions& options() const;
  // The port a server listens on (after start()).
  unsigned short listeningPort() const;

  // A local edit: applied to the model and staged on the controller as one
  // storage transaction, then sent when connected.
  void commit(const Ref<UGTransaction>& transaction);

  // Going offline closes the connection and keeps it closed; going online
  // reconnects (client) or accepts again (server).
  void setOnline(bool online);
  SyncStatus status() const;
  // Called on the context's thread whenever the status changes.
  void setStatusObserver(std::function<void(const SyncStatus&)> observer);

  // True when connected, nothing is waiting to be sent or acknowledged, and
  // both devices claim the same state.
  bool isQuiet() const;

  // This device's identifier and the full identifier of its pairing (empty
  // before the first pairing).
  std::string deviceIdentifier() const;
  std::string pairing() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace loomwork::tasks
