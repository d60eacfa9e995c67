#include "comms/worker_lane.h"

#include <malloc.h>

#include <utility>

namespace varnel::comms {
namespace {

BoundedPool PoolFor(const std::string& lane, MethodKind kind, const char* name) {
  return {lane + "-" + name, WorkerLane::WorkersFor(kind), WorkerLane::kMaxWaitingBytes};
}

}  // namespace

bool LargeRequests::TryPost(std::function<void()> task, size_t bytes) {
  return pool_.TryPost(
      [work = std::move(task)]() mutable {
        work();
        work = nullptr;
        // By itself the allocator would keep what it got for the many small pieces.
        ::malloc_trim(0);
      },
      bytes);
}

WorkerLane::WorkerLane(const std::string& name, LargeRequests& large)
    : large_(large), pools_{PoolFor(name, MethodKind::kQuick, "quick"),
                            PoolFor(name, MethodKind::kPhoto, "photo"),
                            PoolFor(name, MethodKind::kDetection, "detect"),
                            PoolFor(name, MethodKind::kListing, "list"),
                            PoolFor(name, MethodKind::kCommand, "cmd"),
                            PoolFor(name, MethodKind::kNetwork, "net")} {}

void WorkerLane::Open(MethodKind kind) {
  PoolOf(kind).Open();
  large_.Open();
}

bool WorkerLane::TryPost(MethodKind kind, std::function<void()> task, RequestSize size) {
  if (LargeRequests::Includes(size)) return large_.TryPost(std::move(task), size.bytes);
  return PoolOf(kind).TryPost(std::move(task), size.bytes);
}

}  // namespace varnel::comms
