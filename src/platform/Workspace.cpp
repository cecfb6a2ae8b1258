#include "platform/Workspace.h"

#include "platform/LinuxWorkspace.h"

namespace {
Workspace *g_shared = nullptr;
}

Workspace::~Workspace() = default;

Workspace *Workspace::shared()
{
    // Lives until the process ends: running-application objects handed out stay valid.
    static LinuxWorkspace *desktop = new LinuxWorkspace;
    return g_shared ? g_shared : desktop;
}

void Workspace::setShared(Workspace *workspace)
{
    g_shared = workspace;
}
