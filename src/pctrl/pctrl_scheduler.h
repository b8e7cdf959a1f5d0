// Parental-control rule scheduler: keeps the kernel's rule table equal to the
// rules of the configured rule file that are due today, applying at start and
// at every local midnight. Applies are serialised.
#pragma once

// Starts the scheduler thread (applies at once). No-op when running.
void pctrl_sched_start();
// Stops and joins the scheduler; sends "pc rule clean" only when it was
// running. Safe twice.
void pctrl_sched_stop();
// Reads the rule file named by the context and loads today's rules.
void pctrl_apply_rules();
// Sends "pc rule clean"; returns the shell's status.
int pctrl_clean_rules();
