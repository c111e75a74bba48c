/* Calls the library with its switch left off: prints the result (1). */
#include <bmcredfish.h>
#include <stdio.h>

#if BMCREDFISH_VERSION_MAJOR != 1 || BMCREDFISH_VERSION < BMCREDFISH_VERSION_AT(1, 0, 0)
#error "unexpected bmcredfish version"
#endif

int main(void) {
  FeatureState_Init();
  const uint8_t* state = GetFeatureState_Slow("REDFISH");
  if (!state || *state != 0) {
    fprintf(stderr, "the REDFISH switch should exist and be off\n");
    return 1;
  }
  bool on = false;
  printf("%d\n", Redfish_GetPowerState("admin", "secret", NULL, 1000, &on));
  return 0;
}
