#include "dravel-manager.h"

#include <Ecore.h>

int main() {
  if (start_dravel() != 0)
    return -1;
  ecore_main_loop_begin();
  stop_dravel();
  return 0;
}
