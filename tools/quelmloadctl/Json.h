#ifndef QUELM_TOOLS_QUELMLOADCTL_JSON_H_
#define QUELM_TOOLS_QUELMLOADCTL_JSON_H_

#include <string>

namespace quelmctl {

// The probe's documents as one-line JSON objects for scripts: each element
// becomes a member, digits become numbers, a stats text ("cpu=97 bogo=5 ")
// an object of numbers, and the connections of a get reply an array (empty
// when nobody subscribed). Whatever is not a document becomes {"raw": text}.

// A reply: {"type": "get", "version": "1.0", "port": 3579, ...}.
std::string replyJson(const std::string& doc);
// A load packet: {"id": 1, "seqno": 1795613560, "stats": {"cpu": 97}}.
std::string packetJson(const std::string& packet);

}  // namespace quelmctl

#endif  // QUELM_TOOLS_QUELMLOADCTL_JSON_H_
