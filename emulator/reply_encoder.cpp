#include "emulator/reply_encoder.h"

#include "emulator/result_codes.h"
#include "libtidewatch/transport/mcp_handler.h"
#include "libtidewatch/transport/mcp_info.h"

namespace hal_emulator {

using libtidewatch::DataQueue;
using libtidewatch::kMcpMaxPayload;
using libtidewatch::MCP_TYPE;
using libtidewatch::MCP_TYPE_REPLY;
using libtidewatch::MCP_TYPE_TRAP;
using libtidewatch::MCPHandler;
using libtidewatch::MCPInfo;
namespace {

struct FaultName {
  ReplyFault fault;
  const char* name;
};

constexpr FaultName kFaultNames[] = {
    {ReplyFault::kNone, "none"},
    {ReplyFault::kEmptyReply, "empty-reply"},
    {ReplyFault::kTransactionFail, "transaction-fail"},
    {ReplyFault::kNotMcp, "not-mcp"},
    {ReplyFault::kTrapTypeReply, "trap-type-reply"},
    {ReplyFault::kBadJson, "bad-json"},
    {ReplyFault::kNotObject, "not-object"},
    {ReplyFault::kWrongApi, "wrong-api"},
    {ReplyFault::kWrongMethod, "wrong-method"},
    {ReplyFault::kWrongVersion, "wrong-version"},
    {ReplyFault::kMissingRet, "missing-ret"},
    {ReplyFault::kRetOutOfRange, "ret-out-of-range"},
    {ReplyFault::kNoData, "no-data"},
};

// Damage done to the JSON value itself, before it is written.
void DamageValue(ReplyFault fault, Json::Value* reply) {
  switch (fault) {
    case ReplyFault::kNotObject: {
      Json::Value array(Json::arrayValue);
      array.append(*reply);
      *reply = array;
      break;
    }
    case ReplyFault::kWrongApi:
      (*reply)["api"] = "Tidewatch.Unexpected";
      break;
    case ReplyFault::kWrongMethod:
      (*reply)["method"] = "unexpected";
      break;
    case ReplyFault::kWrongVersion:
      (*reply)["version"] = 2;
      break;
    case ReplyFault::kMissingRet:
      reply->removeMember("ret");
      break;
    case ReplyFault::kRetOutOfRange:
      (*reply)["ret"] = 16;
      break;
    case ReplyFault::kNoData:
      reply->removeMember("data");
      break;
    default:
      break;
  }
}

}  // namespace

bool ParseReplyFault(const std::string& name, ReplyFault* fault) {
  for (const FaultName& row : kFaultNames) {
    if (name == row.name) {
      *fault = row.fault;
      return true;
    }
  }
  return false;
}

std::string ReplyFaultNames() {
  std::string names;
  for (const FaultName& row : kFaultNames) {
    if (!names.empty()) names += ", ";
    names += row.name;
  }
  return names;
}

std::string WriteCompactJson(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

ReplyEncoder::ReplyEncoder(ReplyFault fault) : m_fault(fault), m_queue(new DataQueue) {}

CommandAnswer ReplyEncoder::Encode(Json::Value reply, std::string* text) {
  CommandAnswer answer;
  std::string json = WriteCompactJson(reply);
  if (json.size() + 1 > kMcpMaxPayload) {
    reply.removeMember("data");
    reply["ret"] = kRetInternal;
    json = WriteCompactJson(reply);
  }
  if (m_fault != ReplyFault::kNone) {
    DamageValue(m_fault, &reply);
    json = WriteCompactJson(reply);
  }
  if (m_fault == ReplyFault::kBadJson) json.pop_back();  // the closing brace
  if (text != nullptr) *text = json;

  switch (m_fault) {
    case ReplyFault::kEmptyReply:
      return answer;
    case ReplyFault::kTransactionFail:
      answer.status = 1;
      return answer;
    case ReplyFault::kNotMcp:
      answer.reply.assign(json.begin(), json.end());
      answer.reply.push_back('\0');
      return answer;
    default:
      break;
  }

  MCPInfo packet;
  MCP_TYPE type = m_fault == ReplyFault::kTrapTypeReply ? MCP_TYPE_TRAP : MCP_TYPE_REPLY;
  packet.SetData(type, json.size() + 1, reinterpret_cast<const uint8_t*>(json.c_str()), false);
  m_queue->Reset();
  if (MCPHandler::WriteToBuffer(*m_queue, packet, nullptr)) {
    answer.reply.assign(m_queue->Front(), m_queue->Front() + m_queue->size);
  }
  return answer;
}

}  // namespace hal_emulator
