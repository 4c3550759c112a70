/* Everything that libk42mc_r offers. The parts can be included one by one. */
#ifndef K42MC_K42MC_H
#define K42MC_K42MC_H

#include <k42mc/alloc.h>
#include <k42mc/avl.h>
#include <k42mc/bh.h>
#include <k42mc/byteorder.h>
#include <k42mc/dl.h>
#include <k42mc/ds.h>
#include <k42mc/extra.h>
#include <k42mc/fdcheck.h>
#include <k42mc/guard.h>
#include <k42mc/ht.h>
#include <k42mc/memcheck.h>
#include <k42mc/pt.h>
#include <k42mc/px.h>
#include <k42mc/sl.h>

#endif
