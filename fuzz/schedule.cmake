# Timetable and run-day text into the schedule parsers.
tolven_add_fuzzer(schedule SOURCES schedule_fuzz.cpp)
