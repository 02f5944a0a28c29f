#include "fault/AlarmObject.h"

namespace VelaNode {

namespace {

/** Severities as the model's alarm objects hold them, by severity of the events. */
constexpr std::int64_t modelSeverities[] = {1, 2, 6, 5, 4, 3};

}  // namespace

void AlarmObject::write(MoAttributes& attributes) const {
  attributes.addUnsigned(_alarm->index);
  attributes.addOwnText(formatTime(_alarm->eventTime));
  attributes.addOwnText(formatTime(_alarm->originalEventTime));
  attributes.addSigned(modelSeverities[_alarm->severity]);
  attributes.addSigned(modelSeverities[_alarm->originalSeverity]);
  attributes.addText(_alarm->additionalText);
  attributes.addText(_alarm->originalAdditionalText);
  attributes.addText(_alarm->key.specificProblem);
  attributes.addText(_alarm->key.source);
  attributes.addUnsigned(_alarm->key.majorType);
  attributes.addUnsigned(_alarm->key.minorType);
  attributes.addUnsigned(_alarm->probableCause);
  attributes.addUnsigned(_alarm->eventType);
  attributes.addPairs(_alarm->additionalInfo);
}

}  // namespace VelaNode
