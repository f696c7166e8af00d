// The bridge's allow-list of page origins and the request checks made before
// a WebSocket upgrade.
#pragma once

#include <string>
#include <vector>

namespace kvbridge {

// $XDG_CONFIG_HOME/korvanta/bridge.conf, else $HOME/.config/korvanta/bridge.conf.
std::string ConfigPath();

// An origin as browsers send it: scheme "://" host [":" port], lower-case,
// no path. Returns false (and leaves *out alone) for anything else.
bool NormaliseOrigin(const std::string& text, std::string* out);

// One origin per line; blank lines and '#' comments are skipped, so are
// lines that are not origins. A missing file is an empty list.
std::vector<std::string> LoadAllowList(const std::string& path);
bool SaveAllowList(const std::string& path, const std::vector<std::string>& origins,
                   std::string* error);

// True when the Host header names this bridge: 127.0.0.1, [::1] or
// localhost, with the port it listens on.
bool HostAllowed(const std::string& host, unsigned short port);

}  // namespace kvbridge
