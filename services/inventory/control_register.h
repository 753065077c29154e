// What the control registers of this card say.
#pragma once

// Instance of the flash that the card boots from, as its register of the flash selection says: 1 when the alternate
// one is selected, else 0.
unsigned selected_flash();
