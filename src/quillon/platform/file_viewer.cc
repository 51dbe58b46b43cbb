#include "quillon/platform/internal/file_viewer.h"

#include <gio/gio.h>

#include "quillon/base/internal/system_log.h"

namespace quillon {
namespace {

constexpr int kCallTimeoutMs = 3000;

std::string uriFor(const std::string& path) {
  gchar* uri = g_filename_to_uri(path.c_str(), nullptr, nullptr);
  std::string result = uri ? uri : "";
  g_free(uri);
  return result;
}

// Whether a session bus can be reached without GLib autolaunching one, which
// would need a display and may take long to fail.
bool sessionBusConfigured() {
  if (const char* address = g_getenv("DBUS_SESSION_BUS_ADDRESS")) return *address != '\0';
  const char* runtime = g_getenv("XDG_RUNTIME_DIR");
  if (!runtime) return false;
  std::string socket = std::string(runtime) + "/bus";
  return g_file_test(socket.c_str(), G_FILE_TEST_EXISTS);
}

bool showItemsOverDBus(const std::string& uri) {
  if (!sessionBusConfigured()) return false;
  GError* error = nullptr;
  // A connection of our own, so that a bus chosen after GLib first looked
  // (tests, sandboxes) is honoured and nothing stays open afterwards.
  gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, nullptr, &error);
  if (!address) {
    g_error_free(error);
    return false;
  }
  GDBusConnection* bus = g_dbus_connection_new_for_address_sync(
      address,
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, &error);
  g_free(address);
  if (!bus) {
    g_error_free(error);
    return false;
  }
  const gchar* uris[] = {uri.c_str(), nullptr};
  GVariant* reply = g_dbus_connection_call_sync(
      bus, "org.freedesktop.FileManager1", "/org/freedesktop/FileManager1",
      "org.freedesktop.FileManager1", "ShowItems", g_variant_new("(^ass)", uris, ""), nullptr,
      G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, &error);
  bool shown = reply != nullptr;
  if (reply) g_variant_unref(reply);
  if (error) g_error_free(error);
  g_dbus_connection_close_sync(bus, nullptr, nullptr);
  g_object_unref(bus);
  return shown;
}

bool openFolder(const std::string& folder) {
  GError* error = nullptr;
  std::string uri = uriFor(folder);
  if (uri.empty()) return false;
  bool opened = g_app_info_launch_default_for_uri(uri.c_str(), nullptr, &error);
  if (!opened) {
    systemLog("Cannot open " + folder + " in a file manager: " + error->message);
    g_error_free(error);
  }
  return opened;
}

}  // namespace

std::string FileViewer::nearestExistingItem(const std::string& path, Env* env) {
  if (path.empty() || path[0] != '/') return {};
  std::string current = path;
  while (current.size() > 1 && current.back() == '/') current.pop_back();
  while (current != "/" && !env->exists(current)) {
    size_t slash = current.find_last_of('/');
    current = slash == 0 ? "/" : current.substr(0, slash);
  }
  return current;
}

bool FileViewer::reveal(const std::string& path) {
  std::string item = nearestExistingItem(path);
  if (item.empty()) return false;
  std::string uri = uriFor(item);
  if (!uri.empty() && showItemsOverDBus(uri)) return true;
  std::string folder = item;
  if (!Env::Default()->isDirectory(item)) {
    size_t slash = item.find_last_of('/');
    folder = slash == 0 ? "/" : item.substr(0, slash);
  }
  return openFolder(folder);
}

}  // namespace quillon
