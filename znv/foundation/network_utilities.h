// Small decisions shared across the library: the text form of a list of chunk
// indices, remote file names, the service's base URL, the name of the state
// file's configuration, and the file operations of the task managers and tasks.
//
// Contract
// - Stateless free functions; callable from any thread.
// - Only `ZNVNetworkUtilities_sizeOfFileAtURL`,
//   `ZNVNetworkUtilities_copyFileAtURLToProtectedTarget` and
//   `ZNVNetworkUtilities_loadDataFromURL` report errors (through the optional
//   out-parameter, NSCocoaErrorDomain for file failures). Removing and ensuring
//   files log at default level and go on; everything else answers absent,
//   false or 0.
// - The library's own file area is "<home>/Library/Network/"; nothing here
//   creates it except `ZNVNetworkUtilities_ensureFileAtURL`, which makes the
//   parent directories of the file it is asked for.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "znv/account/account_configuration.h"
#include "znv/platform/error.h"
#include "znv/platform/index_set.h"
#include "znv/platform/url.h"

namespace znv {

// "0, 1, 2, 7": every index in ascending decimal, separated by ", ". An empty
// set has no text (nullopt, not "").
std::optional<std::string> ZNVNetworkUtilities_stringFromIndices(const ZNVIndexSet& indices);

// Reads unsigned decimal numbers separated by runs of white space, line
// breaks and ","; reading stops quietly at the first thing that is not a
// number (a letter, other punctuation, a sign, or a number too large for an
// index) and keeps what was read. nullopt when nothing was read.
std::optional<ZNVIndexSet> ZNVNetworkUtilities_indicesFromString(const std::string& text);

// A remote file name the storage service accepts: letters and digits of any
// script, "." and "-" are kept in the base name, everything else is dropped;
// the base is cut to 100 UTF-16 units and the extension appended unchanged.
// A base that would begin with "-" is instead rebuilt from the whole name
// without any "-", and the extension is appended once more ("-x.txt" gives
// "x.txt.txt"), which keeps the names of earlier releases. nullopt when no
// letter or digit remains. A name without an extension is logged.
std::optional<std::string> ZNVNetworkUtilities_sanitizeFilename(const std::string& filename);

// The URL with a trailing "/" when its path is non-empty and its text does not
// end with one, so that relative request paths resolve below it.
ZNVURL ZNVNetworkUtilities_sanitizeBaseURL(const ZNVURL& url);

// The configuration's identifier, or "live" when there is none (or it is empty).
std::string ZNVNetworkUtilities_sanitizedIdentifierForConfiguration(
    const ZNVAccountConfiguration* configuration);

// Whether a file URL's path (symbolic links resolved) begins with the text of
// the application directory's path. A plain text-prefix test: a sibling
// directory whose name starts with the application directory's name matches too.
bool ZNVNetworkUtilities_fileAtURLIsInAppBundle(const ZNVURL& url);
// The same test for a path whose symbolic links are already resolved.
bool ZNVNetworkUtilities_realPathIsInAppBundle(const std::string& realPath);

// file://<home>/Library/Network/<name>; nullopt for an empty name.
std::optional<ZNVURL> ZNVNetworkUtilities_libraryURLWithFileName(const std::string& name);

// Free bytes on the file system that holds the home directory; 0 when unknown.
uint64_t ZNVNetworkUtilities_freeSizeAvailableOnFileSystem();

// The size in bytes of the item at a file URL (symbolic links followed);
// 0 with an error for a URL that is not a file URL (NSURLErrorDomain -1100,
// "the URL must refer to a file") or an item that cannot be examined.
uint64_t ZNVNetworkUtilities_sizeOfFileAtURL(const ZNVURL& url, ZNVErrorRef* error = nullptr);

// Removes the item (a directory with its content) at a file URL if there is
// one; a failure is logged.
void ZNVNetworkUtilities_removeFileAtURL(const ZNVURL& url);

// Makes an empty file at a file URL where nothing exists yet, creating its
// parent directories; an existing item is left untouched. Failures to create
// the directories are logged, failures to create the file are not.
void ZNVNetworkUtilities_ensureFileAtURL(const ZNVURL& url);

// Replaces the target with the source in one durable step: the source is moved
// (consumed), not copied. False without an error when either URL is not a file
// URL; false with an error when the replacement fails (the target keeps its
// old content).
bool ZNVNetworkUtilities_copyFileAtURLToProtectedTarget(const ZNVURL& source, const ZNVURL& target,
                                                        ZNVErrorRef* error = nullptr);

// The whole content of a file URL, read without keeping it in the page cache;
// nullopt with an error when it cannot be read.
std::optional<ZNVBytes> ZNVNetworkUtilities_loadDataFromURL(const ZNVURL& url,
                                                            ZNVErrorRef* error = nullptr);

}  // namespace znv
