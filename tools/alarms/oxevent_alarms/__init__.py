"""The alarm list from a CSV file of oxEvent."""
