"""What bench/run measures with: JVMs that take turns, their workloads, and tables of ratios."""
