// A profile's queue belongs to one server.
//
// The server a profile was first used with is kept in "<identifier>.server"
// beside the profile's state file (one line: the base URL, or "built-in
// emulator" for the emulator znv runs itself). A command that names another
// server for that profile is refused before the queue is opened, so that a
// task queued for one server is never sent to another.
// Free functions; main thread.
#pragma once

#include <string>

namespace znv::cli {

inline constexpr const char* kBuiltInServer = "built-in emulator";

// The library's configuration identifier of a profile ("live" by default).
std::string profileIdentifier(const std::string& profile);
// "~/Library/Network/<identifier>.state", the queue of the profile.
std::string stateFilePath(const std::string& profile);
std::string bindingFilePath(const std::string& profile);

// The server the profile is bound to; "" when it is not bound yet.
std::string boundServer(const std::string& profile);

// Binds an unbound profile to `server` (a base URL or kBuiltInServer), or
// checks that a bound one is bound to it. "" when the command may go on,
// else the message that refuses it.
std::string bindProfile(const std::string& profile, const std::string& server);

}  // namespace znv::cli
