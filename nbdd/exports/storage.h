#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "nbdd/exports/known_data.h"
#include "nbdd/exports/mapping.h"
#include "nbdd/exports/write_pace.h"
#include "nbdd/io/file_descriptor.h"

namespace Nbdd {

/// An opened storage node and what was found out about it when it was opened.
struct OpenNode {
  Io::FileDescriptor descriptor;
  bool readOnly = false;
  bool blockDevice = false;             // otherwise a regular file
  bool memoryBacked = false;            // tmpfs, ramfs: its bytes never wait for a device
  bool localDisk = false;               // a file on a local disk: nobody is asked over a network, or by FUSE
  bool rotational = false;              // a hint
  std::uint64_t size = 0;               // bytes, exact
  std::uint32_t logicalBlock = 1;       // bytes; what is discarded or allocated must be whole ones
  std::uint32_t preferredBlock = 4096;  // bytes, a power of two, at least 512
};

/// Runs one fdatasync for all who ask at about the same time.
///
/// Who asks while a sync is running is served by the next one, which starts when the running one ends and
/// covers everything that was written before it started. Any thread may ask; `done` is called on the thread
/// that ran the sync and must be quick (post to the own loop).
class GroupSync {
 public:
  using Done = std::move_only_function<void(int error)>;

  /// Queues `done`. True: nobody is running a sync, so the caller must run one now and hand its result to
  /// `finish`. False: somebody does.
  [[nodiscard]] bool join(Done done);

  /// The sync that the caller ran ended with `error` (an errno, 0 = success). True: others joined
  /// meanwhile, the caller must run another one.
  [[nodiscard]] bool finish(int error);

 private:
  std::mutex mutex_;
  bool running_ = false;
  std::vector<Done> covered_;  // by the sync that is running
  std::vector<Done> waiting_;  // for the next
};

/// The storage behind one enabled export: one opened node that all connections share, so that a flush on one
/// of them covers the writes of all. Threads: everything here may be used by any.
class Storage {
 public:
  /// `predecessor`: another storage of the same node that clients still use, or null. The kernel reports a
  /// lost write to one sync of their common open file, so the two run their syncs, and fail, together. One
  /// that has failed already is no concern of the new one.
  explicit Storage(OpenNode node, const Storage* predecessor = nullptr);

  int descriptor() const { return node_.descriptor.number(); }
  const OpenNode& node() const { return node_; }
  std::uint64_t size() const { return node_.size; }
  bool readOnly() const { return node_.readOnly; }

  /// What the NBD handshake says of it (Nbd::TransmissionFlag).
  std::uint16_t transmissionFlags() const;

  GroupSync& sync() { return durability_->sync; }

  /// A sync failed: bytes that were acknowledged may be lost. From then on every flush fails, and so does
  /// every request that would write.
  void fail() { durability_->failed.store(true, std::memory_order_release); }
  bool failed() const { return durability_->failed.load(std::memory_order_acquire); }

  /// Whether the node may have holes, so that a read is worth a look at its allocation.
  bool mayHaveHoles() const { return mayHaveHoles_.load(std::memory_order_relaxed); }
  /// The node's bytes, if they are memory and all there; else null.
  const Mapping* mapping() const { return mayHaveHoles() || !mapping_ ? nullptr : &*mapping_; }
  /// To be called before holes are made, and again when they are.
  void noteHoles() {
    mayHaveHoles_.store(true, std::memory_order_relaxed);
    knownData_.forget();
  }
  KnownData& knownData() { return knownData_; }

  WritePace& writePace() { return writePace_; }

 private:
  struct Durability {
    std::atomic<bool> failed = false;
    GroupSync sync;
  };

  OpenNode node_;
  std::optional<Mapping> mapping_;
  std::atomic<bool> mayHaveHoles_ = false;
  KnownData knownData_;
  WritePace writePace_;
  const std::shared_ptr<Durability> durability_;
};

}  // namespace Nbdd
