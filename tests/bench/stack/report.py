"""What a run ends with: the table on the terminal, and the same as JSON."""

import json

WIDTH = 118
COLOURS = {True: "32", False: "31", None: "33"}


def short(value):
    if value is None:
        return "-"
    return f"{value:,.0f}" if value >= 1000 else f"{value:.1f}"


def print_rows(figures):
    print(f"{'':<72}{'p50 us':>10}{'p99 us':>10}{'a second':>12}{'x floor':>10}")
    print("-" * WIDTH)
    for row in figures.rows.values():
        times = figures.times_floor(row.name)
        columns = ["", "", short(row.value)] if row.is_rate else [short(row.value), short(row.p99), ""]
        print(f"{row.name:<72}{columns[0]:>10}{columns[1]:>10}{columns[2]:>12}{f'{times:.2f}' if times else '':>10}")


def print_costs(figures):
    for name, (value, unit) in figures.costs.items():
        print(f"{name:<72}{short(value):>10} {unit}")


def print_goals(goals, screen):
    for goal in goals:
        print(f"{goal.text:<80}{goal.number(goal.value):>12}{'<= ' + goal.number(goal.limit):>14}  "
              f"{screen.paint(COLOURS[goal.is_met], goal.verdict)}")


def print_table(figures, goals, screen):
    print("\n" + "=" * WIDTH)
    for part in (lambda: print_rows(figures), lambda: print_costs(figures), lambda: print_goals(goals, screen)):
        part()
        print("=" * WIDTH)
    print("Medians of the rounds. Times depend on the machine and its day: compare multiples, of one run.")
    for text in figures.missing:
        print(screen.paint("33", f"NOT MEASURED: {text}"))


def write_json(path, figures, goals, facts):
    with open(path, "w", encoding="utf-8") as file:
        json.dump({**facts, **figures.as_json(), "goals": [goal.as_json() for goal in goals]}, file, indent=2)
        file.write("\n")
