// The verbs, each in the file of its name.
#pragma once

#include "tools/Verbs.h"

namespace vkctl {

void addSend(Verbs& verbs);
void addMatch(Verbs& verbs);
void addShow(Verbs& verbs);
void addStatus(Verbs& verbs);
void addReady(Verbs& verbs);
void addLaunch(Verbs& verbs);
void addAccess(Verbs& verbs);
void addElect(Verbs& verbs);
void addAnnotate(Verbs& verbs);
void addBulkAnnotate(Verbs& verbs);
void addAddRemove(Verbs& verbs);
void addHold(Verbs& verbs);
void addRelease(Verbs& verbs);
void addWatch(Verbs& verbs);
void addDiagnose(Verbs& verbs);

}  // namespace vkctl
