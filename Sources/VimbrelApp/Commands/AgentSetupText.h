// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace vimbrel {

/// A text member of an agent's setup document (Control/AgentDocuments.h); empty when there is none.
[[nodiscard]] std::string setupText(const nlohmann::ordered_json& document, const char* key);

/// Prints what stands in the document, to be read and copied by people: the form of today's versions first.
void printAgentSetup(const nlohmann::ordered_json& document);

}  // namespace vimbrel
