#ifndef MICRO850_TESTS_EXHAUST_REPLIES_H
#define MICRO850_TESTS_EXHAUST_REPLIES_H

#include "workers.h"

/// Every short reply to a fixed read, and every step of the CRC.
namespace replies {

/// Every step of the CRC: each value of its register, extended by each byte. Counts the steps.
std::vector<workers::Job> crcJobs();

/// What `counts` of an outcome are.
enum Count { Judged, Intact, Cut, Changed, Counts };

/// Replies with a right head and a body of up to `longest` bytes of a few, or with every code of a
/// type and a value, each closed in three ways: with the right CRC, with a wrong one and with 10 10.
/// At least `thorough` of the former are also cut at every place and changed at every byte to each
/// other value.
std::vector<workers::Job> jobs(int longest, int thorough);

} // namespace replies

#endif
