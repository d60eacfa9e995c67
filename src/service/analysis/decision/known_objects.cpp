#include "service/analysis/decision/known_objects.h"

namespace varnel::service {

void MarkKnownObjects(DetectionRun& run, const char* owner,
                      void (*report)(const Detection&, const KnownObject&)) {
  ReferencePicture& reference = run.workspace.reference;
  if (!reference.IsOwnedBy(owner)) return;
  const ImageBuffer& picture = run.picture.buffer;
  for (size_t i = 0; i < static_cast<size_t>(run.list.count); ++i) {
    Detection& result = run.list.results[i];
    if (result.flag != 0) continue;
    const auto known = reference.FindKnown(result, picture);
    if (!known) continue;
    result.flag |= kDetectionIgnored;
    run.known.set(i);
    report(result, *known);
  }
  // Only now: the results of this picture are compared with an earlier one.
  if (run.known.any()) reference.Update(picture);
}

}  // namespace varnel::service
