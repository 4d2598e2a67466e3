#ifndef MICRO850_TESTS_EXHAUST_SESSIONS_H
#define MICRO850_TESTS_EXHAUST_SESSIONS_H

#include "workers.h"

#include <string>
#include <vector>

/// Every session of a bounded length, compared with the model step by step.
namespace sessions {

/// What `counts` of an outcome are: sessions that were compared, different states in them, steps
/// that were made, and values that the host fetched.
enum Count { Sessions, States, Steps, Fetched, Counts };

/// All sessions of `length` steps over some stations and tags: a job for each state to start from,
/// with each mode of failure and of writing.
std::vector<workers::Job> jobs(int stations, const std::string& tags, int length);

} // namespace sessions

#endif
