#pragma once

#include <stdexcept>
#include <cstdint>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace quillon::tool {

// A failure that ends a command: main prints "error: " and the message on
// one line and exits with status 1.
class ToolError : public std::runtime_error {
 public:
  explicit ToolError(const std::string& message) : std::runtime_error(message) {}
};

// Ends a command with this exit status after it has printed its findings,
// without an "error: " line.
class ExitStatus : public std::exception {
 public:
  explicit ExitStatus(int status) : status_(status) {}
  int status() const { return status_; }
  const char* what() const noexcept override { return "exit status"; }

 private:
  int status_;
};

// Reads a whole file through the framework's Env; raises ToolError.
std::vector<uint8_t> readWholeFile(const std::string& path);

// Decrypts a file of an encrypted package with the key that the password
// and the "Encryption" entry of PKG/Info.plist give; raises ToolError when
// the package has no such entry or the password does not open the file.
std::vector<uint8_t> decryptPackageFile(const std::vector<uint8_t>& bytes,
                                        const std::string& packagePath,
                                        const std::string& password,
                                        const std::string& displayName);

// Each command adds itself (its options and its action) to the tool.
void addDecodeCacheCommand(CLI::App& app);
void addNewCommand(CLI::App& app);      // new_command.cc
void addEditCommands(CLI::App& app);    // edit_commands.cc: insert, update, delete
void addCatCommand(CLI::App& app);      // cat_command.cc
void addChangesCommand(CLI::App& app);  // changes_command.cc
void addFetchCommand(CLI::App& app);    // fetch_command.cc
void addInfoCommand(CLI::App& app);     // info_command.cc
void addLogCommand(CLI::App& app);      // log_command.cc
void addVerifyCommand(CLI::App& app);   // verify_command.cc
void addDemoCommand(CLI::App& app);     // demo_command.cc
void addDiscardCommand(CLI::App& app);   // discard_command.cc
void addHistoryCommand(CLI::App& app);   // history_command.cc
void addExportCommand(CLI::App& app);    // export_command.cc
void addPasswordCommand(CLI::App& app);  // password_command.cc: remember, forget
void addStatusCommand(CLI::App& app);    // status_command.cc
void addWatchCommand(CLI::App& app);     // watch_command.cc

// A change file's name from a CHANGE argument ("<name>" or "<name>.json");
// raises ToolError for anything that is not a change name ("/", "..").
std::string changeFileNameArgument(const std::string& change);

}  // namespace quillon::tool
