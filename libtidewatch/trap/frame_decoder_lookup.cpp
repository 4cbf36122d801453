// FrameDecoder's message-name lookup, used to print names instead of numbers.
#include "libtidewatch/platform/log.h"
#include "libtidewatch/trap/frame_decoder.h"

namespace libtidewatch {

const char* FrameDecoder::GetMsgString(TRAP_TYPE type, unsigned long msgId) const {
  if (type == TRAP_TYPE_EM) {
    auto it = m_msgs.find(msgId);
    if (it != m_msgs.end()) return it->second.name.c_str();
  } else if (type == TRAP_TYPE_OTA) {
    // Only GLOBAL_ID names OTA messages; OTA_INFO traces and IP traces are other id spaces.
    auto it = m_globalIDs.find(msgId);
    if (it != m_globalIDs.end()) return it->second.name.c_str();
  } else {
    TW_LOGD("Bad type: [%lu]",
            static_cast<unsigned long>(static_cast<long>(static_cast<int16_t>(type))));
    return nullptr;
  }
  TW_LOGD("No such message. Type: [%lu], MsgId: [%lu].", static_cast<unsigned long>(type), msgId);
  return nullptr;
}

}  // namespace libtidewatch
