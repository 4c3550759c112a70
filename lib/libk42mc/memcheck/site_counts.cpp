#include "memcheck/site_counts.h"

#include "memcheck/site_table.h"

namespace k42mc::internal {

template <SharedCounter SiteCounts::*counter>
void SiteTally<counter>::change(Share &share, uint32_t site) {
    if (share.site != 0)
        (counts_at(share.site).*counter).add(share.counted);
    share = {site, {}};
}

template <SharedCounter SiteCounts::*counter> void SiteTally<counter>::hand_over() {
    for (Share &share : shares_) {
        if (share.site != 0)
            change(share, 0);
    }
}

template <SharedCounter SiteCounts::*counter> void SiteTally<counter>::forget() {
    for (Share &share : shares_) {
        if (share.site != 0)
            share = {};
    }
}

template class SiteTally<&SiteCounts::allocated>;
template class SiteTally<&SiteCounts::outlived>;

} // namespace k42mc::internal
