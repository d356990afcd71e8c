// Whole files. ipc_file_send.cpp sends them in confirmed chunks and draws their ids; ipc_file_receive.cpp
// writes the chunks into temporary files and removes these after a while.
#pragma once

namespace tavipc {

// An endpoint that accepts files was opened on this thread, perhaps because the previous loop was released
// with the timer of the sweep. Starts that timer again if received files are kept.
void resume_file_sweep();

// For tests: both bring the component back to its state in a new process, on the thread that used it.
// The first one removes all received files.
void reset_received_files();
void reset_file_ids();

} // namespace tavipc
