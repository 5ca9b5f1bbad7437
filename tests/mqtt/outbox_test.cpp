// What waits for the connection, and what is noted of commands.
#include "client.h"
#include "ledger.h"
#include "outbox.h"

#include <gtest/gtest.h>

TEST(Outbox, KeepsAHundred_ForTwoMinutes_InOrder) {
  outbox kept;
  for (int i = 102; i > 0; --i)
    kept.put({.topic = std::to_string(i), .payload = {}, .made_at = i * 1000LL});
  const auto taken = kept.take(122000 + 5000);
  ASSERT_EQ(taken.size(), 96U);
  EXPECT_EQ(taken.front().topic, "7");
  EXPECT_EQ(taken.back().topic, "102");
  EXPECT_TRUE(kept.take(0).empty());
}

TEST(Ledger, ThatCannotBeWritten_RefusesTheCommandsThatItShouldNote) {
  ledger full("/proc/self/comm"); // has a line, in a directory that takes no file
  EXPECT_THROW(full.begin("a"), failure);
  EXPECT_EQ(full.find("a"), nullptr);
}
