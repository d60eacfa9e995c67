#pragma once

namespace varnel::comms {

/// What may make a method slow; requests of one kind wait for each other, those of different kinds
/// do not unless they are large.
enum class MethodKind {
  kQuick,      ///< answers from memory
  kPhoto,      ///< waits for the camera
  kDetection,  ///< waits for the camera and the NPU
  kListing,    ///< reads or changes what is on disk
  kCommand,    ///< starts or ends something: one after another, in the order of arrival
  kNetwork,    ///< talks to the cloud
};

}  // namespace varnel::comms
