#ifndef VELA_NODE_ALARM_OBJECT_H
#define VELA_NODE_ALARM_OBJECT_H

#include "fault/FmAlarm.h"
#include "model/MoRecord.h"

namespace VelaNode {

/** An active alarm as an FmAlarm object of the model. */
class AlarmObject : public MoRecord {
 public:
  explicit AlarmObject(FmAlarmPtr alarm) : _alarm(std::move(alarm)) {}
  void write(MoAttributes& attributes) const override;

 private:
  const FmAlarmPtr _alarm;
};

}  // namespace VelaNode
#endif
