// lsctl: what is said about wrong usage.
#ifndef LSCTL_USAGE_H
#define LSCTL_USAGE_H

#include <string>
#include <string_view>
#include <vector>

// The name that was most likely meant; empty when none is near.
std::string lsctl_nearest(std::string_view typed, const std::vector<std::string> &known);

// Says the sentence, as a JSON object too when that is asked for; returns LSCTL_USAGE.
int lsctl_usage_error(bool json, const std::string &sentence);

#endif
