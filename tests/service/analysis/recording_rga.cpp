#include "recording_rga.h"

#include <cstring>

namespace {

using namespace varnel::service::rga;

varnel::test::RgaRecording recording;

Buffer Describe(int width, int height, int wstride, int hstride, int format) {
  Buffer buffer;
  buffer.width = width;
  buffer.height = height;
  buffer.wstride = wstride;
  buffer.hstride = hstride;
  buffer.format = format;
  std::memset(buffer.rest, varnel::test::kRgaPrivateByte, sizeof(buffer.rest));
  return buffer;
}

}  // namespace

extern "C" {

varnel::test::RgaRecording* Recording() {
  return &recording;
}

Buffer wrapbuffer_virtualaddr_t(void* address, int width, int height, int wstride, int hstride,
                                int format) {
  Buffer buffer = Describe(width, height, wstride, hstride, format);
  buffer.vir_addr = address;
  return buffer;
}

Buffer wrapbuffer_fd_t(int fd, int width, int height, int wstride, int hstride, int format) {
  Buffer buffer = Describe(width, height, wstride, hstride, format);
  buffer.fd = fd;
  return buffer;
}

Status imfill_t(Buffer destination, Rect rect, int colour, int sync) {
  ++recording.fills;
  recording.fill = {destination, rect, colour, sync};
  return recording.fill_status;
}

Status improcess(Buffer source, Buffer destination, Buffer pattern, Rect source_rect,
                 Rect destination_rect, Rect pattern_rect, int usage) {
  ++recording.processes;
  recording.process = {source,           destination,  pattern, source_rect,
                       destination_rect, pattern_rect, usage};
  return recording.process_status;
}

const char* imStrError_t(Status status) {
  return status == -4 ? "Fatal error: unsupported" : "other";
}

}  // extern "C"
