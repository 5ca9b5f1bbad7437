// The bus binding without a bus: it keeps the methods that the daemon exports, for the fuzzer to
// call, and lets its signals go nowhere.
#pragma once

#include <span>
#include <string>

#include <E_DBus.h>

struct bound_method {
  std::string name;
  std::string signature;
  std::string reply_signature;
  E_DBus_Method_Cb handler;
};

std::span<const bound_method> bound_methods();
