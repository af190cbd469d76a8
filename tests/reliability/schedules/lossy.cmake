# Two ports and a line that damages what it carries, against a model of a port that shares nothing with the library.
add_library(gssip_schedules_lossy OBJECT
  lossyAgreement.cpp lossyExchange.cpp lossyJudge.cpp lossyMedium.cpp lossyStation.cpp lossyTraffic.cpp
  referencePort.cpp referenceTracker.cpp)
target_link_libraries(gssip_schedules_lossy PUBLIC gssip_schedules gssip_kit_referenceDecoder)

gssip_add_schedule_test(lossyLineTest lossyLineTest.cpp KIT referenceDecoder TIMEOUT 7200)
target_link_libraries(lossyLineTest PRIVATE gssip_schedules_lossy)
gssip_add_schedule_test(referencePortTest referencePortTest.cpp KIT referenceDecoder)
target_link_libraries(referencePortTest PRIVATE gssip_schedules_lossy)
gssip_add_schedule_test(lossyJudgeTest lossyJudgeTest.cpp KIT referenceDecoder)
target_link_libraries(lossyJudgeTest PRIVATE gssip_schedules_lossy)
