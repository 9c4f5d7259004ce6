// Where znv keeps its files, following the XDG base directories.
//
// - data:  $XDG_DATA_HOME/znv (else ~/.local/share/znv): the embedded
//          emulator's files and the port it last listened on.
// - state: $XDG_STATE_HOME/znv (else ~/.local/state/znv): the log file and the
//          output paths of pending downloads, per profile.
// A relative XDG variable is ignored, as the XDG rules say. The task queue
// itself lives where the library keeps it (its state file per profile).
// Free functions; any thread; nothing is created until `ensureDirectory`.
#pragma once

#include <string>

namespace znv::cli {

std::string dataDirectory();
std::string stateDirectory();
std::string emulatorDataDirectory();
std::string logFilePath();

// Creates the directory and its parents; "" on success, else a message.
std::string ensureDirectory(const std::string& path);

}  // namespace znv::cli
