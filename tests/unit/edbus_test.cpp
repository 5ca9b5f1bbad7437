#include "dravel-edbus.h"
#include "fixture.h"

class Bus : public CleanSet {};

TEST_F(Bus, AStepThatFails_EndsTheJoining_AndWithoutABusNoSignalIsSent) {
  for (const std::string step : {"e_dbus_init", "e_dbus_bus_get", "e_dbus_request_name",
                                 "e_dbus_object_add", "e_dbus_interface_new"}) {
    shutdown_edbus_handler();
    EXPECT_EQ(send_expire_signal(1), 0);
    standin().refused = {step};
    logged();
    EXPECT_EQ(init_edbus_handler(), -1);
    EXPECT_EQ(logged(), "init_edbus_handler > " + step + "() failed\n");
  }
  shutdown_edbus_handler();
  standin().refused.clear();
  EXPECT_EQ(init_edbus_handler(), 0);
  EXPECT_EQ(events(), "");
}
