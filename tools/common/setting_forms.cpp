#include "common/setting_forms.h"

std::string DescribeForm(oxEventSettingForm form) {
  switch (form) {
    case oxEventSettingForm::kSwitch:
      return "a switch, or a number (0 is off, any other is on)";
    case oxEventSettingForm::kSeverity:
      return "a severity, or 0 to 3";
    case oxEventSettingForm::kWord:
      return "a word";
    case oxEventSettingForm::kCapacity:
      return "a number from 1 to 4294967295";
    case oxEventSettingForm::kNumber:
      return "a number from 0 to 4294967295";
    case oxEventSettingForm::kSeconds:
      return "seconds, 0 to 4294967295";
    case oxEventSettingForm::kMilliseconds:
      return "milliseconds, 0 to 4294967295";
    case oxEventSettingForm::kPort:
      return "a port, 0 to 65535";
    case oxEventSettingForm::kText:
      return "a string";
    case oxEventSettingForm::kPath:
      return "a file path";
    case oxEventSettingForm::kHost:
      return "a host name or address";
    case oxEventSettingForm::kUrl:
      return "an http or https URL";
    case oxEventSettingForm::kUriReference:
      return "a URI reference (RFC 3986, section 4.1)";
    case oxEventSettingForm::kHeaderLines:
      return "HTTP header lines, separated by line ends or |";
    case oxEventSettingForm::kSecret:
      return "a secret";
    case oxEventSettingForm::kOid:
      return "a dotted object identifier";
  }
  return "";
}
