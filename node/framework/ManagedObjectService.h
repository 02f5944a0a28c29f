#ifndef VELA_NODE_MANAGED_OBJECT_SERVICE_H
#define VELA_NODE_MANAGED_OBJECT_SERVICE_H

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "VelaOamSpiManagedObject.h"
#include "framework/CurrentInstance.h"
#include "model/MoTransaction.h"

namespace VelaNode {

/** The C interface "VelaOamSpiManagedObject" over a store. One at a time per process. */
class ManagedObjectService {
 public:
  explicit ManagedObjectService(MoStore& store) : _store(store) {}

  /** Works on the service that lives at the moment of a call; VELA_ERROR when none does. */
  static const VelaOamSpiManagedObject_3T* getTable();

  /** Number of transactions that were begun and neither committed nor aborted. */
  std::size_t countTransactions() const;
  /** Number of objects that were opened and not closed. */
  std::size_t countOpenObjects() const;

 private:
  friend struct ManagedObjectCalls;

  /** An object with its attributes, which stay where they are until it is closed. */
  struct OpenObject {
    explicit OpenObject(MoObjectPtr opened) : object(std::move(opened)), view(*object) {}
    const MoObjectPtr object;
    const MoView view;
  };

  VelaOamSpiMoTransactionT begin(int lockPolicy, unsigned timeoutSeconds);
  std::shared_ptr<MoTransaction> find(VelaOamSpiMoTransactionT id) const;
  std::shared_ptr<MoTransaction> take(VelaOamSpiMoTransactionT id);
  const MoView* open(MoObjectPtr object);
  void close(const MoView* view);

  MoStore& _store;
  mutable std::mutex _mutex;
  VelaOamSpiMoTransactionT _lastId = 0;
  std::map<VelaOamSpiMoTransactionT, std::shared_ptr<MoTransaction>> _transactions;
  std::unordered_map<const MoView*, std::unique_ptr<const OpenObject>> _openObjects;
  CurrentInstance<ManagedObjectService> _current{this};
};

}  // namespace VelaNode
#endif
