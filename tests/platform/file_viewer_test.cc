#include "quillon/platform/file_viewer.h"

#include <gio/gio.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "quillon/platform/main_queue.h"
#include "support/temp_dir.h"

namespace quillon {
namespace {

TEST(FileViewerTest, NearestExistingItemWalksUpToWhatExists) {
  TempDir dir;
  ASSERT_FALSE(Env::Default()->writeFileAtomically(dir.file("file"), std::string_view("x")));
  EXPECT_EQ(FileViewer::nearestExistingItem(dir.file("file")), dir.file("file"));
  EXPECT_EQ(FileViewer::nearestExistingItem(dir.path() + "/"), dir.path());
  EXPECT_EQ(FileViewer::nearestExistingItem(dir.file("gone/deeper/doc.quillon")), dir.path());
  EXPECT_EQ(FileViewer::nearestExistingItem("relative/path"), "");
  EXPECT_EQ(FileViewer::nearestExistingItem(""), "");

  class NothingExists : public EnvWrapper {
   public:
    NothingExists() : EnvWrapper(Env::Default()) {}
    bool exists(const std::string&) override { return false; }
  } nothing;
  EXPECT_EQ(FileViewer::nearestExistingItem("/a/b/c", &nothing), "/");
}

// A file manager on a private session bus, serving ShowItems on a thread of
// its own and recording what it was asked to show.
class FakeFileManager {
 public:
  explicit FakeFileManager(std::string address) : address_(std::move(address)) {
    thread_ = std::thread([this] { run(); });
  }
  ~FakeFileManager() {
    while (!loop_.load()) std::this_thread::yield();
    g_main_loop_quit(loop_.load());
    thread_.join();
  }
  bool waitUntilOwned() {
    return MainQueue::runUntil([this] { return owned_.load() || failed_.load(); }, 10.0) &&
           owned_.load();
  }
  std::vector<std::string> shown() {
    std::lock_guard lock(mutex_);
    return shown_;
  }

 private:
  static constexpr const char* kXml =
      "<node><interface name='org.freedesktop.FileManager1'>"
      "<method name='ShowItems'><arg type='as' name='URIs' direction='in'/>"
      "<arg type='s' name='StartupId' direction='in'/></method>"
      "</interface></node>";

  void run() {
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    GMainLoop* loop = g_main_loop_new(context, FALSE);
    GDBusConnection* bus = g_dbus_connection_new_for_address_sync(
        address_.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    guint registration = 0;
    guint ownership = 0;
    GDBusNodeInfo* node = g_dbus_node_info_new_for_xml(kXml, nullptr);
    if (bus) {
      static const GDBusInterfaceVTable vtable = {&FakeFileManager::onCall, nullptr, nullptr, {}};
      registration =
          g_dbus_connection_register_object(bus, "/org/freedesktop/FileManager1",
                                            node->interfaces[0], &vtable, this, nullptr, nullptr);
      ownership = g_bus_own_name_on_connection(
          bus, "org.freedesktop.FileManager1", G_BUS_NAME_OWNER_FLAGS_NONE,
          [](GDBusConnection*, const gchar*, gpointer self) {
            static_cast<FakeFileManager*>(self)->owned_ = true;
          },
          [](GDBusConnection*, const gchar*, gpointer self) {
            static_cast<FakeFileManager*>(self)->failed_ = true;
          },
          this, nullptr);
    } else {
      failed_ = true;
    }
    loop_ = loop;
    g_main_loop_run(loop);
    if (ownership) g_bus_unown_name(ownership);
    if (registration) g_dbus_connection_unregister_object(bus, registration);
    if (bus) {
      g_dbus_connection_close_sync(bus, nullptr, nullptr);
      g_object_unref(bus);
    }
    g_dbus_node_info_unref(node);
    // Let pending callbacks of the closed connection run before the context goes.
    while (g_main_context_iteration(context, FALSE)) {
    }
    g_main_loop_unref(loop);
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
  }

  static void onCall(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                     const gchar* method, GVariant* parameters, GDBusMethodInvocation* invocation,
                     gpointer data) {
    auto* self = static_cast<FakeFileManager*>(data);
    if (g_strcmp0(method, "ShowItems") == 0) {
      GVariantIter* uris = nullptr;
      const gchar* startup = nullptr;
      g_variant_get(parameters, "(as&s)", &uris, &startup);
      const gchar* uri;
      std::lock_guard lock(self->mutex_);
      while (g_variant_iter_next(uris, "&s", &uri)) self->shown_.push_back(uri);
      g_variant_iter_free(uris);
    }
    g_dbus_method_invocation_return_value(invocation, nullptr);
  }

  std::string address_;
  std::thread thread_;
  std::atomic<GMainLoop*> loop_{nullptr};
  std::atomic<bool> owned_{false};
  std::atomic<bool> failed_{false};
  std::mutex mutex_;
  std::vector<std::string> shown_;
};

// A private dbus-daemon for one test, stopped with it.
class PrivateSessionBus {
 public:
  PrivateSessionBus() {
    const gchar* argv[] = {"dbus-daemon", "--session",         "--nofork",
                           "--nopidfile", "--print-address=1", nullptr};
    gint out = -1;
    if (!g_spawn_async_with_pipes(
            nullptr, const_cast<gchar**>(argv), nullptr,
            static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD |
                                     G_SPAWN_STDERR_TO_DEV_NULL),
            nullptr, nullptr, &pid_, nullptr, &out, nullptr, nullptr)) {
      return;
    }
    char c;
    while (::read(out, &c, 1) == 1 && c != '\n') address_.push_back(c);
    ::close(out);
  }
  ~PrivateSessionBus() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
    g_spawn_close_pid(pid_);
  }
  const std::string& address() const { return address_; }

 private:
  GPid pid_ = 0;
  std::string address_;
};

TEST(FileViewerTest, RevealAsksTheFileManagerToShowTheNearestItem) {
  MainQueue::setMainThreadToCurrent();
  PrivateSessionBus bus;
  if (bus.address().empty()) GTEST_SKIP() << "dbus-daemon is not installed";
  std::string previous =
      g_getenv("DBUS_SESSION_BUS_ADDRESS") ? g_getenv("DBUS_SESSION_BUS_ADDRESS") : "";
  g_setenv("DBUS_SESSION_BUS_ADDRESS", bus.address().c_str(), TRUE);
  {
    FakeFileManager manager(bus.address());
    ASSERT_TRUE(manager.waitUntilOwned());
    TempDir dir;
    ASSERT_FALSE(Env::Default()->writeFileAtomically(dir.file("a b.txt"), std::string_view("x")));

    EXPECT_TRUE(FileViewer::reveal(dir.file("a b.txt")));
    EXPECT_TRUE(FileViewer::reveal(dir.file("missing/Changes")));
    gchar* fileUri = g_filename_to_uri(dir.file("a b.txt").c_str(), nullptr, nullptr);
    gchar* dirUri = g_filename_to_uri(dir.path().c_str(), nullptr, nullptr);
    EXPECT_EQ(manager.shown(), (std::vector<std::string>{fileUri, dirUri}));
    g_free(fileUri);
    g_free(dirUri);
  }
  if (previous.empty()) {
    g_unsetenv("DBUS_SESSION_BUS_ADDRESS");
  } else {
    g_setenv("DBUS_SESSION_BUS_ADDRESS", previous.c_str(), TRUE);
  }
}

}  // namespace
}  // namespace quillon
