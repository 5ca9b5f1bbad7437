#include "dravel-edbus.h"
#include "fixture.h"

class Bus : public CleanSet {};

TEST_F(Bus, AStepThatFails_IsLogged_AndWhatIsNotOnTheBusSendsNothing) {
  const std::string no_state = "init_state_object > the state object could not be added\n";
  struct {
    std::string refused;
    int result;
    std::string line;
  } cases[] = {{"e_dbus_init", -1, ""},          {"e_dbus_bus_get", -1, ""},
               {"e_dbus_request_name", -1, ""},  {"e_dbus_object_add", -1, ""},
               {"e_dbus_interface_new", -1, ""}, {kStateObjectPath, 0, no_state},
               {kStateInterface, 0, no_state}};
  for (const auto &[refused, result, line] : cases) {
    shutdown_edbus_handler();
    EXPECT_EQ(send_expire_signal(1), 0);
    standin().refused = {refused};
    logged();
    EXPECT_EQ(init_edbus_handler(), result);
    EXPECT_EQ(logged(), result == 0 ? line : "init_edbus_handler > " + refused + "() failed\n");
    set_kinto_time_updated(get_kinto_time_updated() == 0 ? 1 : 0);
    EXPECT_EQ(state_changes(), "");
  }
  shutdown_edbus_handler();
  standin().refused.clear();
  EXPECT_EQ(init_edbus_handler(), 0);
  EXPECT_EQ(events(), "");
}
