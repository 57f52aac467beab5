// retired: the other end of an upgrade's retired agent files (tools/kivctl/retire.h).
// The files moved under "<install folder>\retired\" keep running agents alive; each goes
// once nothing runs from it, so an uninstall finds the folder empty or gone.
#pragma once

// Deletes each file under "<install_folder>\retired\" that is no longer in use, then each
// folder there that is left empty, the retired folder itself included. A file still in
// use stays, and so do the folders that hold it. Follows no link out of the folder. A
// null folder or one without a retired folder is nothing to do.
void sweep_retired(const char *install_folder);
// The same for the folder of the running executable: kivd.exe's install folder.
void sweep_retired_here();
