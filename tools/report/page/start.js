shows.push(showChoices);
showProcesses();
readAddress();
show();
