// zorctl's side of `stats`: reads the service's counter records and prints
// the values for a person, as JSON members, or in the Prometheus text
// exposition format. The service sends numbers only; every name, kind and
// help text comes from the table in src/stats.cpp.
#pragma once

#include <cjson/cJSON.h>

#include <optional>
#include <string>
#include <vector>

#include "ipc/ipc_server.h"
#include "stats.h"

// Reads the "NAME VALUE" lines of every record into `out`, in table order.
// An error message when a line is malformed, a name comes twice or a value
// of the table is missing (a reply that is not a counter reply); names the
// table does not know are skipped.
std::optional<std::string> stats_parse(const std::vector<ipc_reply>& records, std::vector<stat_value>* out);

// One "name  value" line each, the names padded to one column.
std::string stats_text(const std::vector<stat_value>& values);
// Adds every value to `object` as an integer member named by its key.
void stats_json(cJSON* object, const std::vector<stat_value>& values);
// "# HELP", "# TYPE" and the sample of every value, names zor_..., counters
// ending in _total. Neither text ends the last line.
std::string stats_prometheus(const std::vector<stat_value>& values);
