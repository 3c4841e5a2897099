// OTMerge: the merge of a server transaction and a client transaction made
// concurrently from one state, and the merge class a sync controller merges
// with.
#pragma once

#include <concepts>
#include <functional>
#include <optional>
#include <string_view>

#include "loomwork/graph/UGEntityOperation.h"
#include "loomwork/graph/UGTransaction.h"
#include "loomwork/platform/Object.h"
#include "loomwork/platform/Types.h"
#include "loomwork/platform/Value.h"

#pragma GCC visibility push(default)
namespace loomwork {

// Resolves the conflict between two concurrent transactions into one. Per
// entity UUID one side's entity operation is taken, and where both sides
// updated the entity a new update is built property by property, the later
// modification date winning and the server winning ties and undated changes.
//
// Stateless: the four operations are virtual so that an application can
// override them in its own merge class, above all
// modificationDateForEntityOperation(), through which it supplies the dates
// (the base class knows none). Inputs are never changed. Safe on any thread
// as long as the transactions passed in do not change meanwhile.
class OTMerge : public Object {
 public:
  // A new transaction holding mutable copies of the chosen operations. Per
  // UUID of either side (rows: the client's operation, columns: the server's):
  //
  //              absent   CREATE   UPDATE   DELETE   IDENTITY
  //   absent     -        server   server   server   server
  //   CREATE     client   server   server   server   client
  //   UPDATE     client   client   merged   server   client
  //   DELETE     client   client   client   client   client
  //   IDENTITY   client   server   server   server   server
  //
  // "merged" is mergeServerUpdateEntityOperationClientUpdateEntityOperation().
  // A client operation of another type than these four, or such a server
  // operation where the client has one, puts nothing in for the UUID. The
  // server's UUIDs come first in the result, then the client's others.
  virtual Ref<UGMutableTransaction> mergeServerOperationClientOperation(const UGTransaction& serverOperation,
                                                                        const UGTransaction& clientOperation) const;

  // Two UPDATEs of one entity. When the server's carries no property and no
  // relation transform, the client's operation itself is returned (not a
  // copy); when the client's carries none, the server's itself. Otherwise a
  // mutable copy of the server's in which every property the client set is
  // decided by mergeProperty...() (or taken from the client when the server
  // did not set it), with the two operations' dates; relation transforms are
  // decided in the same way, each transform taken whole (as an Object value).
  virtual Ref<UGEntityOperation> mergeServerUpdateEntityOperationClientUpdateEntityOperation(
      const Ref<UGEntityOperation>& serverUpdate, const Ref<UGEntityOperation>& clientUpdate) const;

  // When the operation was made, or absent. Always absent here; a subclass
  // reads it from the application's own data (a modification-date property of
  // its entities, say).
  virtual std::optional<Date> modificationDateForEntityOperation(const UGEntityOperation& operation) const;

  // The value that wins for a property both sides set: the server's when the
  // client has no date, else the client's when the server has none, else the
  // server's when its date is later than or equal to the client's, else the
  // client's. The property name is not looked at here; a subclass may decide
  // per property. Values are taken whole, never combined.
  virtual Value mergePropertyServerValueServerModificationDateClientValueClientModificationDate(
      std::string_view property, const Value& serverValue, std::optional<Date> serverModificationDate,
      const Value& clientValue, std::optional<Date> clientModificationDate) const;
};

// A merge class: what a sync controller holds to merge with. Calling it makes
// the OTMerge (or subclass) whose operations the controller calls; an empty
// function means that there is no merge class, and a server without one never
// merges. Make one with OTMergeClassOf<YourMerge>(), or with any function
// that returns a merge, for example one configured by the application:
//
//   class DatedMerge : public OTMerge {
//     std::optional<Date> modificationDateForEntityOperation(const UGEntityOperation& op) const override;
//   };
//   controller->setMergeClass(OTMergeClassOf<DatedMerge>());
using OTMergeClass = std::function<Ref<OTMerge>()>;

// The merge class that makes a new M (OTMerge by default) each time.
template <class M = OTMerge>
requires std::derived_from<M, OTMerge> OTMergeClass OTMergeClassOf() {
  return [] { return Ref<OTMerge>(make<M>()); };
}

}  // namespace loomwork
#pragma GCC visibility pop
