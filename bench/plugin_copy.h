// The built plug-in in a folder of its own, loaded and started as the mail server does.
#pragma once

#include "bench/child_process.h"
#include "host/common/plugin_library.h"

namespace kesto {
using namespace host;

// Several can be loaded at once, each with its own server and setting, since each is a file of its own.
class PluginCopy {
 public:
    // In the folder `name`, which is made. The engine server is the loopback's `port`, and is never started.
    PluginCopy(const std::string& name, uint16_t port, bool encrypt);
    ~PluginCopy();
    PluginCopy(const PluginCopy&) = delete;
    PluginCopy& operator=(const PluginCopy&) = delete;

    // Throws unless the file is found clean.
    void Scan(const uint8_t* data, size_t size) const;

 private:
    PluginLibrary plugin_;
};

}  // namespace kesto
