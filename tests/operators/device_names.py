"""A name of a device of each class, 0 to 5, for KELVOR_XPU_DEVICE_NAME."""

DEVICE_NAMES = (
    "Rack GPU Summit 1550",
    "Vela(TM) A770",
    "Rack GPU Ridge 1100",
    "some other",
    "Vela(TM) 9",
    "IGX 3",
)
