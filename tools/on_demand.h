// A shared library that one command alone needs: opened when that command runs, because opening it
// at each start takes other commands a tenth of their time.
#pragma once

#include "client.h"

#include <dlfcn.h>

#include <string>

class on_demand {
public:
  // `package` has the library. Throws a failure when it is not there.
  on_demand(const char *file, const char *package) : package_(package) {
    library_ = dlopen(file, RTLD_NOW);
    if (library_ == nullptr)
      fail();
  }

  // A function of the library, of the type of its declaration.
  template <typename Function> Function *function(const char *name) const {
    void *found = dlsym(library_, name);
    if (found == nullptr)
      fail();
    return reinterpret_cast<Function *>(found);
  }

private:
  [[noreturn]] void fail() const {
    throw failure{dlerror(), std::string("install the package ") + package_};
  }

  const char *package_;
  void *library_; // stays open until the program ends
};
