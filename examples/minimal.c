/* The shortest useful host: oxevent-minimal SETTINGS.xml */
#include <oxEvent.h>
#include <stdio.h>

int main(int argc, char** argv) {
  const oxEventRecord event = {.struct_size = sizeof(event),
                               .version = OXEVENT_API_VERSION,
                               .source_id = "fan-2",
                               .message = "Fan 2 stands still",
                               .severity = OXEVENT_SEVERITY_WARNING};
  if (oxEventInitialize(argc > 1 ? argv[1] : NULL) == OXEVENT_OK && oxEventSubmit(&event) == OXEVENT_OK &&
      oxEventShutdown() == OXEVENT_OK) {
    return 0;
  }
  char error[512];
  oxEventGetLastError(error, sizeof(error));
  fprintf(stderr, "oxEvent: %s\n", error);
  return 1;
}
