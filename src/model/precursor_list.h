// The precursor and marker-fragment entities: PrecursorListGroup and PrecursorList (correlated
// precursors of a chromatogram), ManagedCachedData (a cache object of a marker-fragment group) and
// MarkerFragmentGroup. Their stored properties come from the store model and are reached by key;
// the accessors that keep archived elements linked to their owners belong with those archives.
//
// Objects belong to their context and are used on its thread.
#pragma once

#include "model/store_object.h"

namespace tesselune {

class PrecursorListGroup : public StoreObject {};
class PrecursorList : public StoreObject {};
class ManagedCachedData : public StoreObject {};
class MarkerFragmentGroup : public StoreObject {};

}  // namespace tesselune
