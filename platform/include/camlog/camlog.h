// The device maker's camera-log library: hands error texts to the error service.
#pragma once

namespace camlog {

enum LogType : int {
  CAM_LOG_DEFAULT = 0,
  CAM_LOG_SYSTEM = 7,
};

// msg need not be terminated within 512 bytes; at most 512 bytes are read.
void send_message_to_zebq(char* msg, int arg, LogType type);

}  // namespace camlog
