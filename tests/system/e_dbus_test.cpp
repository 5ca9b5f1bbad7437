#include <E_DBus.h>
#include <Ecore.h>
#include <gmock/gmock.h>

#include <cstdio>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

using ::testing::HasSubstr;

constexpr const char *kName = "org.olvara.test";
constexpr const char *kPath = "/org/olvara/test";
const std::string kGdbus = "gdbus call --system -d org.olvara.test -o ";

// What a client prints that calls a method of the test's own connection.
std::string call(const std::string &path, const std::string &method_and_arguments) {
  std::string output;
  std::thread client([&] {
    FILE *pipe = popen((kGdbus + path + " -m " + method_and_arguments + " 2>&1").c_str(), "r");
    char part[4096];
    while (fgets(part, sizeof part, pipe) != nullptr)
      output += part;
    pclose(pipe);
    ecore_main_loop_thread_safe_call_async([](void *) { ecore_main_loop_quit(); }, nullptr);
  });
  ecore_main_loop_begin();
  client.join();
  return output;
}

void take_name(void *, DBusMessage *, DBusError *error) {
  EXPECT_FALSE(dbus_error_is_set(error));
  ecore_main_loop_quit();
}

DBusMessage *echo(E_DBus_Object *, DBusMessage *) { return nullptr; }

dbus_int32_t volume;

void get_volume(E_DBus_Object *, const char *, DBusMessageIter *value) {
  dbus_message_iter_append_basic(value, DBUS_TYPE_INT32, &volume);
}

int set_volume(E_DBus_Object *, const char *, DBusMessageIter *value) {
  dbus_int32_t wanted = 0;
  dbus_message_iter_get_basic(value, &wanted);
  if (wanted > 11)
    return 0;
  volume = wanted;
  return 1;
}

class BusTest : public ::testing::Test {
protected:
  void SetUp() override {
    ecore_init();
    e_dbus_init();
    E_DBus_Connection *bus = e_dbus_bus_get(DBUS_BUS_SYSTEM);
    e_dbus_request_name(bus, kName, 0, take_name, nullptr);
    ecore_main_loop_begin();
    E_DBus_Interface *interface = e_dbus_interface_new(kName);
    e_dbus_interface_method_add(interface, "Echo", "ia{sv}s", "ay(ii)", echo);
    e_dbus_interface_signal_add(interface, "Rang", "u");
    volume = 7;
    e_dbus_interface_property_add(interface, "Volume", "i", E_DBUS_PROPERTY_SENT, get_volume,
                                  set_volume);
    e_dbus_interface_property_add(interface, "Heard", "i", E_DBUS_PROPERTY_NAMED, get_volume,
                                  nullptr);
    e_dbus_object_interface_attach(e_dbus_object_add(bus, kPath, nullptr), interface);
  }

  void TearDown() override {
    e_dbus_shutdown();
    ecore_shutdown();
  }
};

TEST_F(BusTest, Introspection_SplitsArgumentsByCompleteType) {
  const std::string xml = call(kPath, "org.freedesktop.DBus.Introspectable.Introspect");
  EXPECT_THAT(xml, HasSubstr(R"#(<method name="Echo">\n   <arg type="i" direction="in"/>\n)#"
                             R"#(   <arg type="a{sv}" direction="in"/>\n)#"
                             R"#(   <arg type="s" direction="in"/>\n)#"
                             R"#(   <arg type="ay" direction="out"/>\n)#"
                             R"#(   <arg type="(ii)" direction="out"/>\n  </method>)#"));
  EXPECT_THAT(xml, HasSubstr(R"(<signal name="Rang">\n   <arg type="u"/>\n  </signal>)"));
}

TEST_F(BusTest, UnknownTargets_GetTheStandardErrors) {
  EXPECT_THAT(call(kPath, "org.olvara.test.Nothing"), HasSubstr(DBUS_ERROR_UNKNOWN_METHOD));
  EXPECT_THAT(call(kPath, "org.olvara.other.Echo"), HasSubstr(DBUS_ERROR_UNKNOWN_INTERFACE));
  EXPECT_THAT(call("/no", "org.olvara.test.Echo"), HasSubstr(DBUS_ERROR_UNKNOWN_OBJECT));
}

TEST_F(BusTest, Properties_AreReadAndWritten_OrRefusedWithTheStandardErrors) {
  const struct {
    std::string method;
    const char *answer;
  } calls[] = {{"Get org.olvara.test Volume", "(<7>,)"},
               {"Get '' Heard", "(<7>,)"},
               {"Get org.olvara.test Colour", DBUS_ERROR_UNKNOWN_PROPERTY},
               {"Get org.olvara.other Volume", DBUS_ERROR_UNKNOWN_INTERFACE},
               {"Get org.olvara.test", DBUS_ERROR_INVALID_ARGS},
               {"Set org.olvara.test Volume '<8>'", "()"},
               {"Set org.olvara.test Volume '<12>'", DBUS_ERROR_INVALID_ARGS},
               {"Set org.olvara.test Volume '<true>'", DBUS_ERROR_INVALID_ARGS},
               {"Set org.olvara.test Heard '<8>'", DBUS_ERROR_PROPERTY_READ_ONLY},
               {"GetAll org.olvara.test", "({'Volume': <8>, 'Heard': <8>},)"},
               {"GetAll org.freedesktop.DBus.Introspectable", "(@a{sv} {},)"},
               {"GetAll org.olvara.other", DBUS_ERROR_UNKNOWN_INTERFACE}};
  for (const auto &[method, answer] : calls)
    EXPECT_THAT(call(kPath, "org.freedesktop.DBus.Properties." + method), HasSubstr(answer))
        << method;
}

TEST(LostBusTest, EndsTheMainLoop) {
  ecore_init();
  e_dbus_init();
  const int next_descriptor = dup(STDIN_FILENO);
  close(next_descriptor);
  ASSERT_TRUE(e_dbus_bus_get(DBUS_BUS_SYSTEM));
  ASSERT_EQ(shutdown(next_descriptor, SHUT_RDWR), 0);
  ecore_main_loop_begin(); // returns only when the loss is detected
  e_dbus_shutdown();
  ecore_shutdown();
}

} // namespace
