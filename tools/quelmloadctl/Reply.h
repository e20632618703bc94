#ifndef QUELM_TOOLS_QUELMLOADCTL_REPLY_H_
#define QUELM_TOOLS_QUELMLOADCTL_REPLY_H_

#include <string>
#include <utility>
#include <vector>

namespace quelmctl {

// Reading the probe's one-line documents. They carry no attributes except
// the reply type and no escaping, so plain text search is exact.

// The text between the first <name> at or after *pos and its </name>; on
// success *pos moves past the end tag. False when there is no such element.
bool findElement(const std::string& doc, const std::string& name, std::string& value,
                 size_t* pos = nullptr);
std::string elementText(const std::string& doc, const std::string& name);

// "get", "create", "kill" or "error"; empty when the text is no reply document.
std::string replyType(const std::string& doc);

// The error element's text without the "get /" that starts every one and
// without the separator after the last attribute error.
std::string errorText(const std::string& doc);

// "cpu=97 bogo=5312 " as name and value pairs.
std::vector<std::pair<std::string, std::string>> statEntries(const std::string& stats);

// The get document indented for people, with the hosts in a table; empty
// when the text is not a get document.
std::string prettyGetReply(const std::string& doc);

// A load packet as one line of id, seqno and stats; empty when the text is
// not a load packet.
std::string prettyLoadPacket(const std::string& packet);

}  // namespace quelmctl

#endif  // QUELM_TOOLS_QUELMLOADCTL_REPLY_H_
