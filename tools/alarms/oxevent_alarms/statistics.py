"""Alarm rates, with the thresholds of EEMUA publication 191 for one operator. A value between two thresholds of the
guide is put into the worse of the two classes."""
import collections

from .text import NS

PERIOD_NS = 600 * NS  # The guide counts alarms per ten-minute period.
FLOOD = 10  # A period with more alarms is a flood.
AVERAGE = ((1, "very likely to be acceptable"), (2, "manageable"), (10, "likely to be over-demanding"))
PEAK = ((9, "should be manageable"), (100, "hard to cope with"))
STANDING = ((9, "fewer than 10, as the guide recommends"),)


def classify(value, classes, worst):
    return next((text for limit, text in classes if value <= limit), worst)


def average_class(average):
    return classify(average, AVERAGE, "very likely to be unacceptable")


def peak_class(peak):
    return classify(peak, PEAK, "definitely excessive")


def standing_class(count):
    return classify(count, STANDING, "the guide recommends fewer than 10")


def average(count, range_ns):
    """Returns the average number of alarms per period, for `count` alarms in a range of this length."""
    return count * PERIOD_NS / max(range_ns, PERIOD_NS)


def busiest(times, window_ns):
    """Returns how many of the times, which must be sorted, are within the fullest window of this length."""
    window = collections.deque()
    most = 0
    for time in times:
        window.append(time)
        while time - window[0] >= window_ns:
            window.popleft()
        most = max(most, len(window))
    return most


def periods(start_ns, end_ns):
    """Returns the number of periods that contain a part of this range. Periods begin at 12:00, 12:10 and so on."""
    return end_ns // PERIOD_NS - start_ns // PERIOD_NS + 1


def floods(times):
    """Returns the number of periods with a flood."""
    return sum(count > FLOOD for count in collections.Counter(time // PERIOD_NS for time in times).values())
