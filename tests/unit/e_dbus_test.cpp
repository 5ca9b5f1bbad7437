#include <E_DBus.h>

#include <device_power.h>
#include <settings.h>
#include <standin.h>

#include <Ecore.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace {

using ::testing::HasSubstr;

constexpr const char *kName = "org.olvara.test";
constexpr const char *kPath = "/org/olvara/test";

struct Answer {
  bool arrived = false;
  std::string error;
};

void take_answer(void *data, DBusMessage *, DBusError *error) {
  *static_cast<Answer *>(data) = {true, dbus_error_is_set(error) ? error->name : ""};
  ecore_main_loop_quit();
}

void wait_for(const Answer &answer) {
  while (!answer.arrived)
    ecore_main_loop_begin();
}

Eina_Bool collect(void *output, Ecore_Fd_Handler *handler) {
  char part[4096];
  const ssize_t length = read(ecore_main_fd_handler_fd_get(handler), part, sizeof part);
  if (length > 0)
    static_cast<std::string *>(output)->append(part, static_cast<std::size_t>(length));
  else
    ecore_main_loop_quit();
  return length > 0;
}

// What a client prints that calls a method of the test's own connection.
std::string call(const std::string &path, const std::string &method_and_arguments) {
  std::string output;
  FILE *client = popen(("gdbus call --system -d org.olvara.test -o " + path + " -m " +
                        method_and_arguments + " 2>&1")
                           .c_str(),
                       "r");
  ecore_main_fd_handler_add(fileno(client), ECORE_FD_READ, collect, &output, nullptr, nullptr);
  ecore_main_loop_begin();
  pclose(client);
  return output;
}

DBusMessage *echo(E_DBus_Object *object, DBusMessage *message) {
  ++*static_cast<int *>(e_dbus_object_data_get(object));
  return dbus_message_new_method_return(message);
}

DBusMessage *silent(E_DBus_Object *, DBusMessage *) { return nullptr; }

class BusTest : public ::testing::Test {
protected:
  void SetUp() override {
    standin_reset();
    ecore_init();
    ASSERT_EQ(e_dbus_init(), 1);
    bus = e_dbus_bus_get(DBUS_BUS_SYSTEM);
    Answer named;
    ASSERT_TRUE(e_dbus_request_name(bus, kName, 0, take_answer, &named));
    wait_for(named);
    ASSERT_EQ(named.error, "");

    E_DBus_Interface *interface = e_dbus_interface_new(kName);
    e_dbus_interface_method_add(interface, "Echo", "ia{sv}s", "ay(ii)", echo);
    e_dbus_interface_method_add(interface, "Silent", "", "", silent);
    e_dbus_interface_signal_add(interface, "Rang", "u");
    e_dbus_object_interface_attach(e_dbus_object_add(bus, kPath, &echoes), interface);
  }

  void TearDown() override {
    e_dbus_shutdown();
    ecore_shutdown();
    standin_reset();
  }

  // Calls the connection's own object through the bus.
  void send(const char *interface, const char *member, const char *text, int timeout,
            Answer &answer) {
    DBusMessage *message = dbus_message_new_method_call(kName, kPath, interface, member);
    dbus_message_append_args(message, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    EXPECT_TRUE(e_dbus_message_send(bus, message, take_answer, timeout, &answer));
    dbus_message_unref(message);
  }

  E_DBus_Connection *bus = nullptr;
  int echoes = 0;
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
  EXPECT_THAT(call("/org/olvara/other", "org.olvara.test.Echo"),
              HasSubstr(DBUS_ERROR_UNKNOWN_OBJECT));
  EXPECT_EQ(echoes, 0);
}

TEST_F(BusTest, Handler_HearsAnySignatureAndLength_AlsoWithoutAnInterface) {
  // More than the socket takes at once: the rest goes when there is room.
  const std::string text(4U << 20U, 'x');
  Answer answer;
  send(nullptr, "Echo", text.c_str(), -1, answer);
  wait_for(answer);
  EXPECT_EQ(answer.error, "");
  EXPECT_EQ(echoes, 1);
}

TEST_F(BusTest, NullReply_SendsNothing_AndTheCallerTimesOut) {
  Answer unanswered;
  Answer answer;
  send(kName, "Silent", "", 50, unanswered);
  send(kName, "Echo", "", -1, answer);
  wait_for(answer);
  EXPECT_FALSE(unanswered.arrived); // though it was asked first
  wait_for(unanswered);
  EXPECT_EQ(unanswered.error, DBUS_ERROR_NO_REPLY);
}

TEST_F(BusTest, LastShutdown_LeavesNothingBehind_ThoughAnAnswerIsDue) {
  Answer never;
  EXPECT_EQ(e_dbus_init(), 2);
  EXPECT_EQ(e_dbus_shutdown(), 1);
  EXPECT_EQ(e_dbus_bus_get(DBUS_BUS_SYSTEM), bus);
  EXPECT_EQ(e_dbus_request_name(bus, "no name", 0, take_answer, &never), nullptr);
  EXPECT_EQ(e_dbus_shutdown(), 0);
  EXPECT_EQ(e_dbus_bus_get(DBUS_BUS_SYSTEM), nullptr);

  Answer first; // which leaves the others read, yet not dispatched
  e_dbus_init();
  bus = e_dbus_bus_get(DBUS_BUS_SYSTEM);
  e_dbus_request_name(bus, kName, 0, take_answer, &first);
  for (int request = 0; request < 3; ++request)
    e_dbus_request_name(bus, kName, 0, take_answer, &never);
  wait_for(first);
  e_dbus_shutdown();
  ecore_main_loop_iterate();
  EXPECT_FALSE(never.arrived);
}

TEST(LostBusTest, EndsTheMainLoop) {
  const auto give_up = [](void *data) -> Eina_Bool {
    *static_cast<bool *>(data) = true;
    ecore_main_loop_quit();
    return ECORE_CALLBACK_RENEW;
  };
  ecore_init();
  e_dbus_init();
  const int next_descriptor = dup(STDIN_FILENO);
  close(next_descriptor);
  ASSERT_TRUE(e_dbus_bus_get(DBUS_BUS_SYSTEM));
  ASSERT_EQ(shutdown(next_descriptor, SHUT_RDWR), 0);

  bool gave_up = false;
  Ecore_Timer *limit = ecore_timer_add(5.0, give_up, &gave_up);
  ecore_main_loop_begin();
  EXPECT_FALSE(gave_up);
  ecore_timer_del(limit);
  e_dbus_shutdown();
  ecore_shutdown();
}

// --- the set's object ---

class StandinBusTest : public BusTest {
protected:
  void SetUp() override {
    BusTest::SetUp();
    const auto note_option = [](int given, void *seen) {
      return *static_cast<int *>(seen) = given;
    };
    ASSERT_EQ(device_power_subscribe_poweroff(note_option, &option), 0);
  }

  static std::string property(const std::string &method, const std::string &arguments) {
    return call("/org/olvara/tv/standin", "org.freedesktop.DBus.Properties." + method +
                                              " org.olvara.tv.standin " + arguments);
  }
  static std::string event(const std::string &method_and_arguments) {
    return call("/org/olvara/tv/standin", "org.olvara.tv.standin." + method_and_arguments);
  }

  int option = 0;
};

TEST_F(StandinBusTest, Properties_AreWrittenIntoTheRecordAndReadFromIt) {
  EXPECT_EQ(property("Set", "SyncDb '<-1>'"), "()\n");
  EXPECT_EQ(standin().sync_db, -1);
  EXPECT_EQ(property("Get", "SyncDb"), "(<-1>,)\n");
  EXPECT_EQ(property("Set", "Refuse '<\"read_rtc\">'"), "()\n");
  EXPECT_EQ(standin().refused.count("read_rtc"), 1U);
  EXPECT_EQ(property("Set", "ClocksRunning '<false>'"), "()\n");
  EXPECT_EQ(property("Set", "TvClock '<uint32 4294967295>'"), "()\n");
  EXPECT_EQ(standin_tv_clock(), 4294967295U);
  EXPECT_THAT(property("GetAll", ""), HasSubstr("'TvClock': <uint32 4294967295>"));
}

TEST_F(StandinBusTest, WrongPropertyWrites_AreRefusedAndChangeNothing) {
  const std::pair<const char *, const char *> cases[] = {
      {"PowerState '<uint32 7>'", DBUS_ERROR_INVALID_ARGS},
      {"WakeupTime '<uint32 7>'", DBUS_ERROR_PROPERTY_READ_ONLY},
      {"Tvclock '<uint32 7>'", DBUS_ERROR_UNKNOWN_PROPERTY},
      {"TimeZone '<\"Europe/Nowhere\">'", DBUS_ERROR_INVALID_ARGS},
      {"Refuse '<\"read_rtc,set_wakeup_tme\">'", DBUS_ERROR_INVALID_ARGS}};
  for (const auto &[write, error] : cases)
    EXPECT_THAT(property("Set", write), HasSubstr(error));
  EXPECT_EQ(standin().power_state, 0);
  EXPECT_EQ(standin().wakeup_time, 0U);
  EXPECT_TRUE(standin().refused.empty());
}

TEST_F(StandinBusTest, Events_ReachTheSubscriberBeforeTheReply) {
  int changes = 0;
  const auto count = [](settings_key *, void *counter) { ++*static_cast<int *>(counter); };
  settings_notify_key_changed("db/menu/system/time/clock/time_set", count, &changes);
  EXPECT_EQ(event("PowerOff 13"), "()\n");
  EXPECT_EQ(option, 13);
  EXPECT_THAT(event("PowerOff"), HasSubstr(DBUS_ERROR_INVALID_ARGS));
  EXPECT_EQ(changes, 0);
  ecore_event_add(ECORE_EVENT_SYSTEM_TIMEDATE_CHANGED, nullptr, nullptr, nullptr);
  EXPECT_EQ(event("TimeSet"), "()\n");
  EXPECT_EQ(changes, 2); // the wall clock's step, and the call
}

} // namespace
