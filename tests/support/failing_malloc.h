#pragma once

// What the preloaded allocation functions count and are told.
struct AllocationRecord {
    bool counting = false;
    long allocations = 0; // since counting began
    long failAt = 0;      // the number of the one that fails; 0 for none
    long live = 0;        // blocks taken while counting and not yet freed
    void* site[16] = {};  // return addresses of the one that failed
};

// Exported by the preloaded library; null where it is not.
extern "C" __attribute__((visibility("default"))) AllocationRecord* allocationRecord();
