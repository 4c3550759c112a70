// What k42mcx_at_exit asked for. For the exit handler, with no lock held; they do nothing without the
// wish.
#pragma once

namespace k42mc::internal {

void verify_at_exit();
void list_lost_at_exit();
void write_json_at_exit();

} // namespace k42mc::internal
