% save_picture(folder, name, image, white)   grey PNG of the central slice, x to the right, white WHITE
function save_picture(folder, name, image, white)
  slice = image(:, :, floor(size(image, 3) / 2) + 1);
  imwrite(uint8(min(abs(slice) / white, 1) * 255).', fullfile(folder, [name '.png']));
end
