// SPDX-License-Identifier: Apache-2.0
#include "DeepHold/DeepHoldProtocolCodec.h"

#include <array>
#include <nlohmann/json.hpp>

#include "Domain/RawValueTable.h"
#include "Support/StrictJson.h"

namespace vimbrel {
namespace {

using nlohmann::json;

struct CommandRow {
  HelperCommand value;
  std::string_view raw;
};
constexpr std::array<CommandRow, 5> commands{{{HelperCommand::status, "status"},
                                              {HelperCommand::acquire, "acquire"},
                                              {HelperCommand::renew, "renew"},
                                              {HelperCommand::release, "release"},
                                              {HelperCommand::uninstall, "uninstall"}}};
static_assert(rowsFollowDeclaration(commands));

/// A lease id that is not UTF-8 becomes replacement characters instead of an exception.
std::string dump(const json& value) { return value.dump(-1, ' ', false, json::error_handler_t::replace); }

}  // namespace

json toJson(const DeepSleepStatus& status, DateCoding dates) {
  json value{{"isHelperInstalled", status.isHelperInstalled},
             {"isDeepHoldActive", status.isDeepHoldActive},
             {"currentSystemSleepDisabled", status.currentSystemSleepDisabled}};
  if (status.activeLeaseId) value["activeLeaseId"] = *status.activeLeaseId;
  if (status.leaseExpiresAt) value["leaseExpiresAt"] = encodeInstant(*status.leaseExpiresAt, dates);
  if (status.originalSleepDisabledState) {
    value["originalSleepDisabledState"] = *status.originalSleepDisabledState;
  }
  return value;
}

std::expected<DeepSleepStatus, DecodeError> deepSleepStatusFromJson(const json& value, DateCoding dates) {
  StrictJsonObject object(value, "status");
  DeepSleepStatus status;
  status.isHelperInstalled = object.boolean("isHelperInstalled");
  status.isDeepHoldActive = object.boolean("isDeepHoldActive");
  status.activeLeaseId = object.optionalString("activeLeaseId");
  status.leaseExpiresAt = readOptionalInstant(object, "leaseExpiresAt", dates);
  status.originalSleepDisabledState = object.optionalBoolean("originalSleepDisabledState");
  status.currentSystemSleepDisabled = object.boolean("currentSystemSleepDisabled");
  if (object.error()) return std::unexpected(DecodeError{*object.error()});
  return status;
}

std::string encode(const HelperRequest& request) {
  json value{{"command", rowOf(commands, request.command).raw}};
  if (request.leaseId) value["leaseId"] = *request.leaseId;
  if (request.ttlSeconds) value["ttlSeconds"] = *request.ttlSeconds;
  return dump(value);
}

std::expected<HelperRequest, DecodeError> decodeHelperRequest(std::string_view text) {
  const auto value = parseJson(text);
  if (!value) return std::unexpected(DecodeError{"request: not valid JSON"});
  StrictJsonObject object(*value, "request");
  HelperRequest request;
  const auto command = valueWithRaw(commands, object.string("command"));
  if (!command) object.fail("command", "is unknown");
  request.command = command.value_or(HelperCommand::status);
  request.leaseId = object.optionalString("leaseId");
  request.ttlSeconds = object.optionalNumber("ttlSeconds");
  if (object.error()) return std::unexpected(DecodeError{*object.error()});
  return request;
}

std::string encode(const HelperResponse& response) {
  json value{{"ok", response.ok}};
  if (response.status) value["status"] = toJson(*response.status);
  if (response.error) value["error"] = *response.error;
  return dump(value);
}

std::expected<HelperResponse, DecodeError> decodeHelperResponse(std::string_view text) {
  const auto value = parseJson(text);
  if (!value) return std::unexpected(DecodeError{"response: not valid JSON"});
  StrictJsonObject object(*value, "response");
  HelperResponse response;
  response.ok = object.boolean("ok");
  response.error = object.optionalString("error");
  if (object.error()) return std::unexpected(DecodeError{*object.error()});
  if (const auto* member = object.member("status")) {
    auto status = deepSleepStatusFromJson(*member);
    if (!status) return std::unexpected(status.error());
    response.status = std::move(*status);
  }
  return response;
}

}  // namespace vimbrel
