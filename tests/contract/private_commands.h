// Commands of the test's own, where stock Linux looks for the system's.
#pragma once

#include <string>

namespace orbisk::test {

/// Covers, in a private mount namespace, the folders that commands are looked for in first, and empties them. Call it
/// from the main thread. False where the machine does not allow it.
bool MakePrivateCommands();

/// Makes a shell script the file `path`, which tells of each of its runs. After MakePrivateCommands.
void AddScript(const std::string& path, const std::string& body);
/// Makes a script the system's command `name`.
void AddCommand(const std::string& name, const std::string& body);
/// What scripts were run with, since MakePrivateCommands, one line each.
std::string CommandsRun();

/// Adds a Samba whose registry holds the Spotlight switch, below what its smb.conf says: "Yes", "No", or "" for
/// nothing. Its registry is the file kSambaRegistry. After MakePrivateCommands.
void AddPrivateSamba(const std::string& set_in_file = "");
inline constexpr char kSambaRegistry[] = "/usr/local/bin/registry";
/// The registry's text, "none" when it has no entry.
std::string SambaRegistry();

}  // namespace orbisk::test
