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

#include <optional>
#include <string>

namespace znv::cli {

std::string dataDirectory();
std::string stateDirectory();
std::string emulatorDataDirectory();
std::string logFilePath();

// Creates the directory and its parents; "" on success, else a message.
std::string ensureDirectory(const std::string& path);

// The contents of the regular file at `path`. A link, FIFO, device or
// directory put there is not opened through (a FIFO would block the process
// before it could be interrupted): nullopt, with `*problem` saying why; a
// file that does not exist is nullopt with `*problem` empty.
std::optional<std::string> readRegularFile(const std::string& path, std::string* problem = nullptr);

}  // namespace znv::cli
