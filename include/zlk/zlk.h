/* Everything public, in one include. */
#ifndef ZLK_ZLK_H
#define ZLK_ZLK_H

#include "zlk/batch.h"
#include "zlk/blob.h"
#include "zlk/client.h"
#include "zlk/cluster.h"
#include "zlk/direct.h"
#include "zlk/entry.h"
#include "zlk/error.h"
#include "zlk/integer.h"
#include "zlk/iterator.h"
#include "zlk/listing.h"
#include "zlk/log.h"
#include "zlk/node_admin.h"
#include "zlk/options.h"
#include "zlk/perf.h"
#include "zlk/query.h"
#include "zlk/tag.h"
#include "zlk/transaction.h"
#include "zlk/ts.h"
#include "zlk/ts_aggregate.h"
#include "zlk/ts_batch.h"
#include "zlk/ts_local_table.h"
#include "zlk/ts_types.h"
#include "zlk/types.h"

#endif /* ZLK_ZLK_H */
