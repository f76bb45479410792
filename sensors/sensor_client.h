// The client of the sensor hub: one test run of one sensor at a time. open_sensor starts it, the
// hub's samples arrive on the QMI library's thread while the caller sleeps, fetch_sensor_data takes
// the latest, close_sensor ends it. All three are called on one thread.

#pragma once

// Rows of the hub's sensors; the last word on what each measures is the hub's.
enum SensorType : int {
  kSensorAccel = 0,
  kSensorMag = 1,
  kSensorGyro = 2,
  kSensorAmbientLight = 3,
  kSensorProximity = 4,
  kSensorWiseLight = 5,
  kSensorProximityFake = 6,
  kSensorPressure = 7,
  kSensorSar = 8,
  kSensorSecondAccel = 9,  // the second of two accelerometers
  kSensorSecondGyro = 10,
  kSensorHall = 11,
  kSensorAngleHall = 12,
  kSensorPadAls = 13,
  kSensorVicePadAls = 14,
  kSensorSars = 15,
};

constexpr int kSensorValues = 3;
constexpr float kNoSensorData = -999.0F;  // a value that no sample has set

// Connects to the hub and asks it for the sensor. Returns 0 when the run has started (a sensor that
// never answers included), -1 when one runs already or the hub cannot be reached; a failed run need
// not be closed. A type outside the table connects and asks for nothing.
int open_sensor(int type_id);

// Copies the latest values into values (kSensorValues floats) and sets the run's own back to
// kNoSensorData. Returns 0.
int fetch_sensor_data(float* values);

// Disconnects. No event of the run is handled any more when this returns 0.
int close_sensor(int type_id);
