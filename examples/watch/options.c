#include "options.h"

#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const int kContinue = -1;
static const int kUsage = 2;
static const double kMax = 1e9;  // Limit of all numbers: exact as a double and as an integer.

static const char kHelp[] =
    "Usage: oxevent-watch [OPTION]... SETTINGS.xml\n"
    "Watches this machine and reports problems through oxEvent.\n"
    "\n"
    "  --config FILE        the settings file, if not given as the argument; may be empty\n"
    "  --folder DIR         directory whose file system is watched (default /)\n"
    "  --spool DIR          directory whose files are watched (default none)\n"
    "  --max-used PERCENT   limit for the use of the file system (default 90)\n"
    "  --max-files N        limit for the number of files in the spool (default 1000)\n"
    "  --max-age SEC        limit for the age of the oldest file in the spool (default 3600)\n"
    "  --max-load X         limit for the load average of one minute (default off)\n"
    "  --min-memory MB|P%   memory that must be available, in megabytes or percent (default 5%)\n"
    "  --alertmanager URL   post the events to this Alertmanager (http://HOST:9093/api/v2/alerts); for a cluster,\n"
    "                       give the option once for each Alertmanager\n"
    "  --period MS          interval of the rounds (default 5000)\n"
    "  --count N            stop after N rounds (default 0: never)\n"
    "  --help               print this help and exit\n"
    "\n"
    "The limit \"off\" disables a check. SIGHUP reloads the settings; SIGINT and SIGTERM stop the program.\n";

enum {
  kHelpOption,
  kConfig,
  kDirectory,
  kSpool,
  kMaxUsed,
  kMaxFiles,
  kMaxAge,
  kMaxLoad,
  kMinMemory,
  kAlertmanager,
  kPeriod,
  kCount
};

static const struct option kOptions[] = {{"help", no_argument, NULL, kHelpOption},
                                         {"config", required_argument, NULL, kConfig},
                                         {"folder", required_argument, NULL, kDirectory},
                                         {"spool", required_argument, NULL, kSpool},
                                         {"max-used", required_argument, NULL, kMaxUsed},
                                         {"max-files", required_argument, NULL, kMaxFiles},
                                         {"max-age", required_argument, NULL, kMaxAge},
                                         {"max-load", required_argument, NULL, kMaxLoad},
                                         {"min-memory", required_argument, NULL, kMinMemory},
                                         {"alertmanager", required_argument, NULL, kAlertmanager},
                                         {"period", required_argument, NULL, kPeriod},
                                         {"count", required_argument, NULL, kCount},
                                         {NULL, 0, NULL, 0}};

static int ParseNumber(const char* option, const char* text, const char* unit, double min, double max, double* number) {
  char* rest = NULL;
  const bool digits = *text >= '0' && *text <= '9';  // strtod also takes blanks, signs, nan.
  *number = digits ? strtod(text, &rest) : 0;
  if (digits && strcmp(rest, unit) == 0 && *number >= min && *number <= max) return kContinue;
  fprintf(stderr, "oxevent-watch: --%s: '%s' is not a number from %.0f to %.0f\n", option, text, min, max);
  return kUsage;
}

static int ParseWhole(const char* option, const char* text, double min, uint64_t* whole) {
  double number = 0;
  const int status = ParseNumber(option, text, "", min, kMax, &number);
  *whole = (uint64_t)number;
  if (status != kContinue || (double)*whole == number) return status;
  fprintf(stderr, "oxevent-watch: --%s: '%s' is not a whole number\n", option, text);
  return kUsage;
}

static int ParseLimit(const char* option, const char* text, const char* unit, double max, Limit* limit) {
  limit->on = strcmp(text, "off") != 0;
  return limit->on ? ParseNumber(option, text, unit, 0, max, &limit->value) : kContinue;
}

static int SetSettings(const char* path, Options* options) {
  if (options->settings == NULL) {
    options->settings = path;
    return kContinue;
  }
  fprintf(stderr, "oxevent-watch: '%s': the settings file is '%s' already\n", path, options->settings);
  return kUsage;
}

static int AddAlertmanager(const char* url, Options* options) {
  if (options->alertmanager_count < kMaxAlertmanagers) {
    options->alertmanagers[options->alertmanager_count++] = url;
    return kContinue;
  }
  fprintf(stderr, "oxevent-watch: --alertmanager: '%s' is one more than %d\n", url, kMaxAlertmanagers);
  return kUsage;
}

static int SetOption(int option, const char* name, const char* text, Options* options) {
  switch (option) {
    case kHelpOption:
      fputs(kHelp, stdout);
      return EXIT_SUCCESS;
    case kConfig:
      return SetSettings(text, options);
    case kDirectory:
      options->directory = text;
      return kContinue;
    case kSpool:
      options->spool = text;
      return kContinue;
    case kMaxUsed:
      return ParseLimit(name, text, "", 100, &options->max_used_percent);
    case kMaxFiles:
      options->option_needing_spool = name;
      return ParseLimit(name, text, "", kMax, &options->max_files);
    case kMaxAge:
      options->option_needing_spool = name;
      return ParseLimit(name, text, "", kMax, &options->max_age_s);
    case kMaxLoad:
      return ParseLimit(name, text, "", kMax, &options->max_load);
    case kMinMemory:
      options->min_memory_is_percent = strchr(text, '%') != NULL;
      return options->min_memory_is_percent ? ParseLimit(name, text, "%", 100, &options->min_memory)
                                            : ParseLimit(name, text, "", kMax, &options->min_memory);
    case kAlertmanager:
      return AddAlertmanager(text, options);
    case kPeriod:
      return ParseWhole(name, text, 1, &options->period_ms);
    case kCount:
      return ParseWhole(name, text, 0, &options->rounds);
    default:  // getopt_long has printed the error.
      fputs("Try 'oxevent-watch --help'.\n", stderr);
      return kUsage;
  }
}

int ParseOptions(int argc, char** argv, Options* options) {
  *options = (Options){.directory = "/",
                       .period_ms = 5000,
                       .max_files = {1000, true},
                       .max_age_s = {3600, true},
                       .max_used_percent = {90, true},
                       .min_memory = {5, true},
                       .min_memory_is_percent = true};
  int status = kContinue;
  int option = 0;
  int index = 0;
  while (status == kContinue && (option = getopt_long(argc, argv, "", kOptions, &index)) != -1) {
    status = SetOption(option, kOptions[index].name, optarg, options);
  }
  for (; status == kContinue && optind < argc; ++optind) status = SetSettings(argv[optind], options);
  if (status == kContinue && options->settings == NULL) {
    fputs("oxevent-watch: the settings file is missing; try 'oxevent-watch --help'\n", stderr);
    return kUsage;
  }
  if (status == kContinue && options->option_needing_spool != NULL && options->spool == NULL) {
    fprintf(stderr, "oxevent-watch: --%s: needs --spool\n", options->option_needing_spool);
    return kUsage;
  }
  return status;
}
