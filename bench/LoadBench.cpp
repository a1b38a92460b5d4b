// Drives the real daemon along its main roads and prints what each costs beside its limit. Exit status 0 when every
// target was met. Arguments name groups: roundtrips, matches, annotations, crowds, starts; none means all.
#include <cstdio>
#include <cstring>

#include "bench/Roads.h"

int main(int argc, char** argv) {
  struct Group {
    const char* name;
    void (*measure)(bench::Table&);
  };
  const Group groups[] = {{"roundtrips", bench::measureRoundTrips},
                          {"matches", bench::measureMatches},
                          {"annotations", bench::measureAnnotations},
                          {"crowds", bench::measureCrowds},
                          {"starts", bench::measureStarts}};
  bench::Table table;
  for (const Group& group : groups) {
    bool wanted = argc == 1;
    for (int i = 1; i < argc; ++i) wanted = wanted || std::strcmp(argv[i], group.name) == 0;
    if (!wanted) continue;
    std::fprintf(stderr, "%s\n", group.name);
    group.measure(table);
  }
  return table.print() ? 0 : 1;
}
