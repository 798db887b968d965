// Draws the charts from the tables: the same numbers, and none of their own.
"use strict";

const charts = {
  logins: { table: "days", columns: [1, 2], colors: ["--good", "--bad"] },
  traffic: { table: "days", columns: [4, 5], colors: ["--sent", "--received"], bytes: true },
  users: { table: "users", columns: [4, 5], colors: ["--sent", "--received"], bytes: true, lying: true },
  sources: { table: "sources", columns: [1], colors: ["--bad"], lying: true },
};
const longestLabel = 24;
const longestOnPhone = 18;

function color(name) {
  return getComputedStyle(document.documentElement).getPropertyValue(name).trim();
}

function bytes(value) {
  const units = ["B", "KB", "MB", "GB", "TB", "PB", "EB"];
  let unit = 0;
  while (value >= 1024 && unit + 1 < units.length) {
    value /= 1024;
    ++unit;
  }
  return `${Number(value.toFixed(1))} ${units[unit]}`;
}

// Ticks at whole numbers of a unit, or at halves of the next, which is 1024 of it.
const byteSteps = [[1, 6], [2, 12], [5, 30], [10, 60], [20, 120], [50, 300], [100, 600], [200, 1000], [512, 3072]];

function byteStep(most) {
  for (let unit = 1; ; unit *= 1024) {
    const fitting = byteSteps.find(([, upTo]) => most <= upTo * unit);
    if (fitting) {
      return fitting[0] * unit;
    }
  }
}

function shortened(text, longest) {
  const characters = Array.from(text);
  return characters.length > longest
    ? characters.slice(0, longest - 1).join("") + "\u2026"
    : text;
}

function configuration(spec, table) {
  // The rest has no bar: it would make the others look alike.
  const rows = Array.from(table.tBodies[0].rows).filter((row) => row.className !== "rest");
  if (!spec.lying) {
    rows.reverse();  // from the left to the right, where the table has the newest first
  }
  const value = (row, column) => Number(row.cells[column].dataset.value);
  const amount = (number) => (spec.bytes ? bytes(number) : number.toLocaleString());
  const most = Math.max(...rows.map((row) => spec.columns.reduce((sum, column) => sum + value(row, column), 0)));
  const amounts = {
    beginAtZero: true,
    stacked: true,
    grid: { color: color("--line") },
    ticks: {
      color: color("--faint"),
      precision: 0,
      maxTicksLimit: 7,
      stepSize: spec.bytes ? byteStep(most) : undefined,
      callback: amount,
    },
  };
  const names = {
    stacked: true,
    grid: { display: false },
    ticks: {
      color: color("--faint"),
      autoSkip: !spec.lying,
      maxRotation: 60,
      callback(index) {
        return shortened(this.getLabelForValue(index), this.chart.width < 480 ? longestOnPhone : longestLabel);
      },
    },
  };
  return {
    type: "bar",
    data: {
      labels: rows.map((row) => shortened(row.cells[0].textContent, longestLabel)),
      datasets: spec.columns.map((column, index) => ({
        label: table.tHead.rows[0].cells[column].textContent,
        data: rows.map((row) => value(row, column)),
        backgroundColor: color(spec.colors[index]),
      })),
    },
    options: {
      animation: false,
      maintainAspectRatio: false,
      indexAxis: spec.lying ? "y" : "x",
      scales: spec.lying ? { x: amounts, y: names } : { x: names, y: amounts },
      plugins: {
        legend: { display: spec.columns.length > 1, labels: { color: color("--text") } },
        tooltip: {
          callbacks: {
            label: (item) => `${item.dataset.label}: ${amount(spec.lying ? item.parsed.x : item.parsed.y)}`,
          },
        },
      },
    },
  };
}

let drawn = [];

function draw() {
  drawn.forEach((chart) => chart.destroy());
  drawn = [];
  for (const figure of document.querySelectorAll("figure[data-chart]")) {
    const spec = charts[figure.dataset.chart];
    const table = document.getElementById(spec.table);
    if (table) {
      figure.hidden = figure.closest("section").hidden = false;
      if (spec.lying) {
        figure.style.height = `${6 + 1.5 * table.tBodies[0].rows.length}rem`;
      }
      drawn.push(new Chart(figure.firstElementChild, configuration(spec, table)));
    }
  }
}

draw();
matchMedia("(prefers-color-scheme: dark)").addEventListener("change", draw);
