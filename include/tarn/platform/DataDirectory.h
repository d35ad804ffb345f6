#pragma once
// The folders where the library keeps everything it persists: the preference stores and the local
// database.
//
// Each application has a folder of its own. The library's tree is
//     "$XDG_DATA_HOME/TarniOSCommonKit/"  (else "$HOME/.local/share/TarniOSCommonKit/")
// and in it
//     "<application id>/"        this application's database and standard preference store;
//     "groups/<app group id>/"   the preference store of an app group, shared by every process of
//                                this user that names the group, and by nothing else.
// The application id is the "CFBundleIdentifier" of the main bundle's Info.plist (`Bundle::main`),
// else the name of the running executable. Ids and group ids are made into one safe folder name
// (`folderNameFor`). Without a usable home (neither variable set to an absolute path) the tree is
// "$XDG_RUNTIME_DIR/TarniOSCommonKit/", else a fresh private folder that `mkdtemp` makes under
// $TMPDIR (or /tmp) once per process: its data lasts as long as the process.
//
// A folder given to `setDataDirectory`, else the environment variable TARN_DATA_DIR, replaces the
// application's folder; the app groups then live in its "groups/" subfolder, so processes share a
// group exactly when they are given the same folder.
//
// Privacy. Folders are created with mode 0700 and every file with mode 0600. A folder of the tree
// (the tree itself, "groups/", the application's or a group's folder, a folder given as above, and
// the library's subfolders in them) that is a symbolic link, belongs to another user or can be
// written by group or others is refused: one line "Tarn-DataDirectory: The folder <path> is refused
// for the library's data: <reason>. Nothing is saved in it." is logged (once per folder and
// process) and the library goes on as with a folder it cannot write: every file it would keep there
// fails to open (the path then returned lies under "/dev/null", where nothing can be created), its
// changes are kept in memory only and the usual failure lines are logged. Files are opened without
// following a symbolic link planted in their place.
//
// Data that an earlier release kept in the shared folder ("<tree>/Preferences", "<tree>/
// TarnDatabase.sqlite", or "/tmp/TarniOSCommonKit-<uid>" without a home) is left where it is; the
// first use in a process that finds it logs one line naming this application's folder.

#include <filesystem>
#include <string>

#include "tarn/core/Export.h"

namespace tarn {

/// This application's data folder (created, mode 0700, when missing); an unusable path under
/// "/dev/null" when the folder is refused (see above). Any thread.
TARN_API std::filesystem::path dataDirectory();
/// The folder of app group `group` (created, mode 0700, when missing), or an unusable path when it
/// is refused. Any thread.
TARN_API std::filesystem::path appGroupDirectory(const std::string& group);
/// Points every persisted file of the library at `folder`; an empty path goes back to the
/// default. Call it before the library's first use (tests call it with a temporary folder).
TARN_API void setDataDirectory(const std::filesystem::path& folder);

/// The id naming this application's default folder: the main bundle's "CFBundleIdentifier", else
/// the executable's name.
TARN_API std::string applicationIdentifier();
/// `name` as one folder name: bytes other than ASCII letters, digits, '.', '_' and '-' (and a
/// leading '.', and the first letter of the names the tree uses itself: "groups", "Preferences",
/// "TarnDatabase.sqlite...") are written as '%' and two upper-case hex digits; a name longer than
/// 200 bytes is cut and ends in '~' and a 16-digit hash of the whole. Distinct names stay distinct
/// (up to the hash); an empty name gives an empty result.
TARN_API std::string folderNameFor(const std::string& name);

/// Creates `folder` (and the folders missing above it) with mode 0700 when it is missing and
/// checks that it is a folder the library may keep data in: not a symbolic link, this user's, not
/// writable by group or others. False when it is refused (logged once per folder and process). A
/// path that cannot be created or is no folder is not refused: writing there fails on its own. Any
/// thread.
TARN_API bool ensurePrivateFolder(const std::filesystem::path& folder);
/// The path returned in place of a refused folder: under "/dev/null", so nothing can be created.
TARN_API std::filesystem::path refusedFolderPath();

}  // namespace tarn
