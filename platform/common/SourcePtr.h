// A GSource owned by the code that attached it: leaving scope detaches and releases it.
#pragma once

#include <glib.h>

#include "UniqueHandle.h"

namespace nimbos {

inline void DestroySource(GSource *source)
{
    g_source_destroy(source);
    g_source_unref(source);
}

using SourcePtr = UniqueHandle<GSource, DestroySource>;

} // namespace nimbos
