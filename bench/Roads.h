// The groups of measurements; each adds its rows to the table.
#pragma once

#include "bench/Measure.h"

namespace bench {

void measureRoundTrips(Table& table);   // small requests: one client, eight, sixteen in flight
void measureMatches(Table& table);      // 100 of 10,000, all 1,000, all 10,000; memory; growth to 100,000
void measureAnnotations(Table& table);  // one change in a store of 100 and of 5,000 entries
void measureCrowds(Table& table);       // a polite client beside clients that misbehave
void measureStarts(Table& table);       // start to first reply

}  // namespace bench
