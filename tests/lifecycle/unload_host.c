/* A host service that loads, uses and unloads the library many times. It is
 * linked -rdynamic and defines its own cleanup() and feature switches: the
 * library must never call them in place of its own. Compiled as C99, so the
 * public header stays C. Prints the resident set size as the cycles go. */
#define _GNU_SOURCE /* RTLD_NOLOAD, sysconf */
#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "bmcredfish.h"

static int host_calls = 0;
static uint8_t host_switch = 0; /* off: a library reading it would refuse */

void cleanup(void) { ++host_calls; }
void FeatureState_Init(void) { ++host_calls; }
uint8_t* GetFeatureState_Slow(const char* name) {
  (void)name;
  ++host_calls;
  return &host_switch;
}

typedef void (*init_fn)(void);
typedef uint8_t* (*state_fn)(const char*);
typedef int (*power_fn)(const char*, const char*, const char*, unsigned int, bool*);
typedef int (*mac_fn)(const char*, const char*, const char*, const char*, unsigned int, char*,
                      unsigned int*);

static long rss_kib(void) {
  long pages = 0, resident = 0;
  FILE* f = fopen("/proc/self/statm", "r");
  if (f == NULL) return -1;
  if (fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = -1;
  fclose(f);
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

/* One load, two calls that create and use a connection, one unload. */
static int cycle(const char* path) {
  void* lib = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (lib == NULL) {
    fprintf(stderr, "dlopen: %s\n", dlerror());
    return 0;
  }
  init_fn feature_init = (init_fn)dlsym(lib, "FeatureState_Init");
  state_fn feature_state = (state_fn)dlsym(lib, "GetFeatureState_Slow");
  power_fn power_state = (power_fn)dlsym(lib, "Redfish_GetPowerState");
  mac_fn mac_address = (mac_fn)dlsym(lib, "Redfish_GetMacAddress");
  int ok = feature_init && feature_state && power_state && mac_address;
  if (ok) {
    feature_init();
    uint8_t* redfish = feature_state("REDFISH");
    bool on = true;
    /* Off after every load, and then nothing is done. */
    if (*redfish != 0 || power_state("u", "p", NULL, 100, &on) != REDFISH_FEATURE_DISABLED || !on) {
      fprintf(stderr, "the switch was on after loading, or did not refuse\n");
      ok = 0;
    }
    *redfish = 1;
    char mac[32];
    unsigned int length = sizeof mac;
    int rc = power_state("admin", "secret", NULL, 5000, &on);
    if (rc != 0) fprintf(stderr, "power state: %d\n", rc);
    ok = ok && rc == 0;
    rc = mac_address("admin", "secret", NULL, NULL, 5000, mac, &length);
    if (rc != 0) fprintf(stderr, "MAC address: %d\n", rc);
    ok = ok && rc == 0;
  }
  if (dlclose(lib) != 0) return 0;
  void* still = dlopen(path, RTLD_NOW | RTLD_NOLOAD);
  if (still != NULL) {
    fprintf(stderr, "the library stayed loaded\n");
    dlclose(still);
    return 0;
  }
  return ok;
}

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s LIBRARY CYCLES\n", argv[0]);
    return 2;
  }
  const int cycles = atoi(argv[2]);
  int failed = 0;
  for (int i = 1; i <= cycles; ++i) {
    if (!cycle(argv[1])) ++failed;
    if (i == 1 || i == 10 || i == 100 || i % 500 == 0 || i == cycles) {
      printf("cycle %d: rss %ld KiB\n", i, rss_kib());
      fflush(stdout);
    }
  }
  printf("%d of %d cycles failed; the host's own functions called %d times\n", failed, cycles,
         host_calls);
  return failed == 0 && host_calls == 0 ? 0 : 1;
}
