#include <oxEvent.h>

#include <string>

// A C++ host that formats an event as an Alertmanager document, and reports it with this document as its details.
int main(int, char** argv) {
  oxEventRecord event{};
  event.struct_size = sizeof(event);
  event.version = OXEVENT_API_VERSION;
  event.severity = OXEVENT_SEVERITY_ERROR;
  event.message = "Fan 2 stands still";
  std::string alerts;
  if (oxEventFormatAlertmanagerRecord(&event, {}, &alerts) != OXEVENT_OK) return 1;
  const std::string alert = alerts.substr(1, alerts.size() - 2);  // Without the brackets of the array.
  event.details_json = alert.c_str();
  return oxEventInitialize(argv[1]) || oxEventSubmit(&event) || oxEventShutdown() ? 1 : 0;
}
