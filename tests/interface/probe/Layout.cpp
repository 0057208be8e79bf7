#include "Layout.h"

#include <sstream>

// offsetof is only conditionally supported for classes with virtual functions; both compilers do,
// since none of these has a virtual base.
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

namespace ktr::test {

std::vector<ClassLayout> publicLayouts() {
    return {
        KETRA_CLASS(PluginBase, KETRA_MEMBER(PluginBase, ip), KETRA_MEMBER(PluginBase, port),
                    KETRA_MEMBER(PluginBase, eventCallback), KETRA_MEMBER(PluginBase, webApi),
                    KETRA_MEMBER(PluginBase, mqttClient)),
        KETRA_CLASS(MSNotification, KETRA_MEMBER(MSNotification, rpcIp),
                    KETRA_MEMBER(MSNotification, rpcPort), KETRA_MEMBER(MSNotification, msGuid),
                    KETRA_MEMBER(MSNotification, msType)),
        KETRA_CLASS(MSProperty, KETRA_MEMBER(MSProperty, ip), KETRA_MEMBER(MSProperty, port)),
        KETRA_CLASS(ProcessProperty, KETRA_MEMBER(ProcessProperty, path),
                    KETRA_MEMBER(ProcessProperty, handle)),
        KETRA_CLASS(MSManager, KETRA_MEMBER(MSManager, reportRoute),
                    KETRA_MEMBER(MSManager, hostIp), KETRA_MEMBER(MSManager, hostPort),
                    KETRA_MEMBER(MSManager, processMutex), KETRA_MEMBER(MSManager, processes),
                    KETRA_MEMBER(MSManager, checkThread), KETRA_MEMBER(MSManager, running),
                    KETRA_MEMBER(MSManager, propertyMutex), KETRA_MEMBER(MSManager, properties),
                    KETRA_MEMBER(MSManager, stopped)),
    };
}

std::string layoutText() {
    std::ostringstream text;
    for (const ClassLayout& type : publicLayouts()) {
        text << type.name << " size " << type.size << " alignment " << type.alignment << "\n";
        for (const MemberLayout& member : type.members)
            text << type.name << "." << member.member << " at " << member.offset << " size "
                 << member.size << " alignment " << member.alignment << "\n";
    }
    return text.str();
}

} // namespace ktr::test
