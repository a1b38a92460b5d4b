// vkctl show: everything that the daemon tells of one plug-in.

#include <memory>

#include "tools/PlugInNames.h"
#include "tools/text/FormText.h"
#include "tools/verbs/AllVerbs.h"

namespace vkctl {

void addShow(Verbs& verbs) {
  auto name = std::make_shared<std::string>();
  CLI::App& verb = verbs.add("show", "Tells everything of one plug-in",
                             {"vkctl show com.example.photos.share",
                              "vkctl show /Applications/Photos.app/Contents/PlugIns/Share.appex --json"},
                             [name](Session& session) {
                               PlistValue form = PlugInNames(session).form(*name);
                               if (session.json()) {
                                 session.printJson(form);
                               } else {
                                 session.print(indentedText(form));
                               }
                               return asInt(ExitStatus::Done);
                             });
  verb.add_option("plug-in", *name, "Its UUID, identifier or path")->required()->type_name("");
  verbs.addJson(verb);
}

}  // namespace vkctl
