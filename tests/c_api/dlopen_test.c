/* Loads the library as a host service would: dlopen, enable, initialise,
 * unload, load again. Compiled as C99 so the public header stays C. */
#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "bmcredfish.h"

static int failures = 0;
#define CHECK(cond)                                                      \
  do {                                                                   \
    if (!(cond)) {                                                       \
      fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #cond); \
      ++failures;                                                        \
    }                                                                    \
  } while (0)

typedef void (*init_fn)(void);
typedef uint8_t* (*state_fn)(const char*);
typedef int (*initialize_fn)(void);
typedef void (*close_fn)(const char*);
typedef int (*power_fn)(const char*, const char*, const char*, unsigned int, bool*);

static void* load(const char* path) {
  void* lib = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (lib == NULL) {
    fprintf(stderr, "dlopen: %s\n", dlerror());
    exit(1);
  }
  return lib;
}

static void exercise(void* lib, int round) {
  init_fn feature_init = (init_fn)dlsym(lib, "FeatureState_Init");
  state_fn feature_state = (state_fn)dlsym(lib, "GetFeatureState_Slow");
  initialize_fn initialize = (initialize_fn)dlsym(lib, "Redfish_Initialize");
  power_fn power_state = (power_fn)dlsym(lib, "Redfish_GetPowerState");
  close_fn close_connection = (close_fn)dlsym(lib, "Redfish_CloseConnection");
  CHECK(feature_init && feature_state && initialize && power_state && close_connection);
  CHECK(dlsym(lib, "cleanup") != NULL);
  if (!(feature_init && feature_state && initialize && power_state && close_connection)) return;

  feature_init();
  uint8_t* redfish = feature_state("REDFISH");
  CHECK(redfish != NULL);
  if (redfish == NULL) return;
  CHECK(*redfish == 0); /* off by default, also after a reload */
  CHECK(initialize() == REDFISH_FEATURE_DISABLED);
  bool on = true;
  CHECK(power_state("u", "p", NULL, 100, &on) == REDFISH_FEATURE_DISABLED);
  CHECK(on == true);
  *redfish = 1;
  CHECK(initialize() == REDFISH_OK);
  CHECK(initialize() == REDFISH_OK);
  close_connection("never-opened");
  *redfish = 0;
  CHECK(initialize() == REDFISH_FEATURE_DISABLED); /* read afresh each call */
  printf("round %d done\n", round);
}

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: %s LIBRARY\n", argv[0]);
    return 2;
  }
  for (int round = 1; round <= 2; ++round) {
    void* lib = load(argv[1]);
    exercise(lib, round);
    CHECK(dlclose(lib) == 0);
  }
  printf("%d failed\n", failures);
  return failures == 0 ? 0 : 1;
}
